// The one error style of the subcommands.
#pragma once

#include <stdexcept>
#include <string>

namespace kestrelbridge::tools {

// Thrown when a subcommand cannot go on: main prints the text and ends with the exit code. The text
// names the thing, its value, and what to do about it.
class ToolError : public std::runtime_error {
 public:
  explicit ToolError(const std::string& text, int exit_code = 1)
      : std::runtime_error(text), exit_code_(exit_code) {}

  [[nodiscard]] int exit_code() const { return exit_code_; }

 private:
  int exit_code_;
};

// Somebody else listens there.
class AddressInUseError : public ToolError {
 public:
  using ToolError::ToolError;
};

}  // namespace kestrelbridge::tools
