#include "support/child_process.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <system_error>

namespace kestrelbridge::test {
namespace {

// A file without a name. Unlike a pipe it is never full, so the program never waits for us.
int MakeFile() {
  const int file = memfd_create("output", MFD_CLOEXEC);
  if (file == -1) {
    throw std::system_error(errno, std::generic_category(), "memfd_create");
  }
  return file;
}

std::string ReadAll(int file) {
  std::string text;
  std::array<char, 4096> buffer{};
  for (ssize_t length = 0;
       (length = pread(file, buffer.data(), buffer.size(), static_cast<off_t>(text.size()))) > 0;) {
    text.append(buffer.data(), static_cast<std::size_t>(length));
  }
  return text;
}

// Runs in the child, between fork and exec: system calls only.
[[noreturn]] void Execute(char* const* arguments, pid_t parent, int output, int error) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) {
    _exit(127);  // the test is gone already
  }
  const int empty = open("/dev/null", O_RDONLY);
  dup2(empty, STDIN_FILENO);
  dup2(output, STDOUT_FILENO);
  dup2(error, STDERR_FILENO);
  close_range(3, UINT_MAX, CLOSE_RANGE_CLOEXEC);  // also what whoever started the test left open
  execvp(arguments[0], arguments);
  _exit(127);
}

ProcessEnd Decode(int status) {
  if (WIFEXITED(status)) {
    return ExitedWith(WEXITSTATUS(status));
  }
  return {.exit_code = -1, .signal = WTERMSIG(status)};
}

}  // namespace

std::vector<std::string> Kestrelctl(std::vector<std::string> words) {
  words.insert(words.begin(), ProgramPath("kestrelctl"));
  return words;
}

ChildProcess::ChildProcess(std::vector<std::string> command)
    : output_(MakeFile()), error_(MakeFile()) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (std::string& text : command) {
    arguments.push_back(text.data());
  }
  arguments.push_back(nullptr);
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ == 0) {
    Execute(arguments.data(), parent, output_, error_);
  }
  if (pid_ == -1) {
    throw std::system_error(errno, std::generic_category(), "fork");
  }
}

ChildProcess::~ChildProcess() {
  Kill(SIGKILL);
  if (!end_) {
    waitpid(pid_, nullptr, 0);
  }
  close(output_);
  close(error_);
}

bool ChildProcess::WaitForLine(std::string_view text, std::chrono::milliseconds patience,
                               int count) {
  bool found = false;
  Eventually(
      [&] {
        const bool all_is_said = !IsRunning();  // asked before the look at what it said
        found = CountLines(Error(), text) >= count || CountLines(Output(), text) >= count;
        return found || all_is_said;
      },
      patience);
  return found;
}

std::optional<ProcessEnd> ChildProcess::WaitForExit(std::chrono::milliseconds patience) {
  Eventually([this] { return !IsRunning(); }, patience);
  return end_;
}

bool ChildProcess::IsRunning() {
  int status = 0;
  if (!end_ && waitpid(pid_, &status, WNOHANG) == pid_) {
    end_ = Decode(status);
  }
  return !end_;
}

void ChildProcess::Kill(int signal) {
  if (IsRunning()) {
    kill(pid_, signal);
  }
}

std::string ChildProcess::Output() const { return ReadAll(output_); }
std::string ChildProcess::Error() const { return ReadAll(error_); }

int CountLines(std::string_view text, std::string_view part) {
  int count = 0;
  std::size_t start = 0;
  for (std::size_t end = 0; (end = text.find('\n', start)) != std::string_view::npos;
       start = end + 1) {
    count += text.substr(start, end - start).find(part) != std::string_view::npos ? 1 : 0;
  }
  return count;
}

}  // namespace kestrelbridge::test
