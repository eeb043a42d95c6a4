// Asks another program something: its output, within a deadline.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace kestrelbridge::tools {

// The whole path of a program in PATH, or in the folders that are root's only; empty: not
// installed.
[[nodiscard]] std::string FindProgram(const std::string& name);

struct ProgramAnswer {
  int exit_code = -1;
  std::string output;  // standard output and error, at most 64 kB
};

// Runs it without a shell and with an empty input. Nothing when it is not installed, or has not
// ended by itself in time: then it is killed.
[[nodiscard]] std::optional<ProgramAnswer> RunProgram(const std::vector<std::string>& command,
                                                      std::chrono::milliseconds patience);

}  // namespace kestrelbridge::tools
