// The one error style of the bench.
#pragma once

#include <stdexcept>

namespace kestrelbridge {

// Thrown when a subcommand cannot go on: main prints the text and ends with exit code 1. The text
// names the thing, its value, and what to do about it.
class ToolError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace kestrelbridge
