#include "support/child_process.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

#include "tools/common/start_program.h"

namespace kestrelbridge::test {
namespace {

// A file without a name. Unlike a pipe it is never full, so the program never waits for us. Of such
// a file the kernel does not guard the position: two threads that write at the same moment would
// write to the same place, but for O_APPEND.
int MakeFile() {
  const int file = memfd_create("output", MFD_CLOEXEC);
  if (file == -1 || fcntl(file, F_SETFL, O_APPEND) != 0) {
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
    : output_(MakeFile()),
      error_(MakeFile()),
      pid_(tools::StartProgram(
          {.command = std::move(command), .output = output_, .error = error_})) {}

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
