#include "tools/common/start_program.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>

#include "tools/common/tool_error.h"

namespace kestrelbridge::tools {
namespace {

constexpr int kCannotStart = 127;

// Runs in the child, between fork and exec: system calls only.
[[noreturn]] void Execute(char* const* arguments, pid_t parent, const ProgramStart& start) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) {
    _exit(kCannotStart);  // the parent is gone already
  }
  if (start.core >= 0) {
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(static_cast<std::size_t>(start.core), &cores);
    sched_setaffinity(0, sizeof cores, &cores);
  }
  dup2(start.input != -1 ? start.input : open("/dev/null", O_RDONLY), STDIN_FILENO);
  dup2(start.output, STDOUT_FILENO);
  dup2(start.error, STDERR_FILENO);
  close_range(3, UINT_MAX, CLOSE_RANGE_CLOEXEC);  // also what whoever started us left open
  execvp(arguments[0], arguments);
  _exit(kCannotStart);
}

}  // namespace

pid_t StartProgram(const ProgramStart& start) {
  std::vector<std::string> command = start.command;
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (std::string& text : command) {
    arguments.push_back(text.data());
  }
  arguments.push_back(nullptr);
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child == 0) {
    Execute(arguments.data(), parent, start);
  }
  if (child == -1) {
    throw ToolError("cannot start " + command.at(0) + ": " + std::strerror(errno));
  }
  return child;
}

}  // namespace kestrelbridge::tools
