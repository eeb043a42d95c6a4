#include "tools/common/run_program.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <string_view>

#include "tools/common/start_program.h"
#include "tools/common/tool_error.h"

namespace kestrelbridge::tools {
namespace {

constexpr std::size_t kLongestOutput = 65'536;

using Clock = std::chrono::steady_clock;

// Reads until the end. False when the time is over first.
bool ReadAll(int input, std::string& text, Clock::time_point end) {
  std::array<char, 4096> buffer{};
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    pollfd descriptor = {.fd = input, .events = POLLIN, .revents = 0};
    if (left.count() <= 0 || poll(&descriptor, 1, static_cast<int>(left.count())) == 0) {
      return false;
    }
    const ssize_t count = read(input, buffer.data(), buffer.size());
    if (count == 0 || (count == -1 && errno != EINTR)) {
      return true;
    }
    if (count > 0) {
      text.append(buffer.data(), static_cast<std::size_t>(count));
      text.resize(std::min(text.size(), kLongestOutput));
    }
  }
}

}  // namespace

std::string FindProgram(const std::string& name) {
  if (name.find('/') != std::string::npos) {
    return name;
  }
  const char* const path = std::getenv("PATH");
  const std::string folders =
      std::string(path == nullptr ? "/usr/bin:/bin" : path) + ":/usr/local/sbin:/usr/sbin:/sbin";
  for (std::string_view rest = folders; !rest.empty();) {
    const std::size_t end = std::min(rest.find(':'), rest.size());
    std::string file = std::string(rest.substr(0, end)) + "/" + name;
    if (end > 0 && access(file.c_str(), X_OK) == 0) {
      return file;
    }
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return "";
}

std::optional<ProgramAnswer> RunProgram(const std::vector<std::string>& command,
                                        std::chrono::milliseconds patience) {
  std::vector<std::string> there = command;
  there.at(0) = FindProgram(command.at(0));
  std::array<int, 2> ends{};
  if (there[0].empty() || pipe2(ends.data(), O_CLOEXEC) != 0) {
    return std::nullopt;
  }
  const pid_t program = StartProgram({.command = there, .output = ends[1], .error = ends[1]});
  close(ends[1]);
  ProgramAnswer answer;
  const bool in_time = ReadAll(ends[0], answer.output, Clock::now() + patience);
  close(ends[0]);
  if (!in_time) {
    kill(program, SIGKILL);
  }
  int status = 0;
  waitpid(program, &status, 0);
  if (!in_time || !WIFEXITED(status)) {
    return std::nullopt;
  }
  answer.exit_code = WEXITSTATUS(status);
  return answer;
}

}  // namespace kestrelbridge::tools
