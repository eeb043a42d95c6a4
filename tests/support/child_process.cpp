#include "support/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <system_error>

namespace kestrelbridge {
namespace {

struct Pipe {
  int read_end = -1;
  int write_end = -1;
};

Pipe MakePipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe2");
  }
  return {.read_end = ends[0], .write_end = ends[1]};
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

ChildProcess::ChildProcess(std::vector<std::string> command) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (std::string& text : command) {
    arguments.push_back(text.data());
  }
  arguments.push_back(nullptr);
  const Pipe output = MakePipe();
  const Pipe error = MakePipe();
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ == 0) {
    Execute(arguments.data(), parent, output.write_end, error.write_end);
  }
  const int reason = errno;
  close(output.write_end);
  close(error.write_end);
  if (pid_ == -1) {
    close(output.read_end);
    close(error.read_end);
    throw std::system_error(reason, std::generic_category(), "fork");
  }
  gatherer_ = std::thread(&ChildProcess::GatherOutput, this, output.read_end, error.read_end);
}

ChildProcess::~ChildProcess() {
  Kill(SIGKILL);
  if (!end_) {
    waitpid(pid_, nullptr, 0);
  }
  gatherer_.join();
}

bool ChildProcess::WaitForLine(std::string_view text, std::chrono::milliseconds patience,
                               int count) {
  const auto found = [&] {
    const std::lock_guard lock(mutex_);
    return CountLines(error_, text) >= count || CountLines(output_, text) >= count;
  };
  const auto decided = [&] {
    const std::lock_guard lock(mutex_);
    return output_complete_;  // nothing more will come
  };
  return Eventually([&] { return found() || decided(); }, patience) && found();
}

std::optional<ProcessEnd> ChildProcess::WaitForExit(std::chrono::milliseconds patience) {
  if (!Eventually([this] { return !IsRunning(); }, patience)) {
    return std::nullopt;
  }
  Eventually([this] {
    const std::lock_guard lock(mutex_);
    return output_complete_;
  });
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

std::string ChildProcess::Output() const {
  const std::lock_guard lock(mutex_);
  return output_;
}

std::string ChildProcess::Error() const {
  const std::lock_guard lock(mutex_);
  return error_;
}

// Reads all the time, so that a program never waits for us with a full pipe.
void ChildProcess::GatherOutput(int output, int error) {
  std::array<pollfd, 2> pipes = {{{output, POLLIN, 0}, {error, POLLIN, 0}}};
  const std::array<std::string*, 2> texts = {&output_, &error_};
  std::array<char, 4096> buffer{};
  while (pipes[0].fd != -1 || pipes[1].fd != -1) {
    poll(pipes.data(), pipes.size(), -1);
    for (std::size_t i = 0; i < pipes.size(); ++i) {
      if (pipes[i].fd == -1 || pipes[i].revents == 0) {
        continue;
      }
      const ssize_t length = read(pipes[i].fd, buffer.data(), buffer.size());
      if (length > 0) {
        const std::lock_guard lock(mutex_);
        texts[i]->append(buffer.data(), static_cast<std::size_t>(length));
      } else if (length == 0 || errno != EINTR) {
        close(pipes[i].fd);
        pipes[i].fd = -1;  // poll passes over it
      }
    }
  }
  const std::lock_guard lock(mutex_);
  output_complete_ = true;
}

int CountLines(std::string_view text, std::string_view part) {
  int count = 0;
  std::size_t start = 0;
  for (std::size_t end = 0; (end = text.find('\n', start)) != std::string_view::npos;
       start = end + 1) {
    count += text.substr(start, end - start).find(part) != std::string_view::npos ? 1 : 0;
  }
  return count;
}

}  // namespace kestrelbridge
