// A real program under test: started, listened to, ended.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "support/eventually.h"

namespace kestrelbridge::test {

// How a program ended. Compares and prints, for EXPECT_EQ.
struct ProcessEnd {
  int exit_code = -1;  // -1: ended by a signal
  int signal = 0;
  bool operator==(const ProcessEnd&) const = default;
};
inline std::ostream& operator<<(std::ostream& out, const ProcessEnd& end) {
  return end.signal == 0 ? out << "exit code " << end.exit_code : out << "signal " << end.signal;
}
inline ProcessEnd ExitedWith(int exit_code) { return {.exit_code = exit_code}; }

// The real path of one of our programs.
inline std::string ProgramPath(std::string_view name) {
  return std::string(KESTRELBRIDGE_BIN_DIR) + "/" + std::string(name);
}

// The command that runs kestrelctl with these words.
std::vector<std::string> Kestrelctl(std::vector<std::string> words);

// One running program, standard input empty, standard output and error kept. It is
// killed with its ChildProcess, or when the thread that started it ends. One thread uses it.
class ChildProcess {
 public:
  // command[0] is the program: a path, or a name that is searched for in PATH. One that cannot be
  // started ends with code 127.
  explicit ChildProcess(std::vector<std::string> command);
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();

  // True once standard error or standard output holds `count` whole lines that contain the text.
  bool WaitForLine(std::string_view text, std::chrono::milliseconds patience = Patience(),
                   int count = 1);

  // How the program ended, all of its output gathered; nothing when it still runs at the deadline.
  std::optional<ProcessEnd> WaitForExit(std::chrono::milliseconds patience = Patience());

  bool IsRunning();
  void Kill(int signal);  // does nothing once the end has been seen

  // What the program has written so far.
  std::string Output() const;
  std::string Error() const;

  pid_t pid() const { return pid_; }

 private:
  int output_;  // files
  int error_;
  pid_t pid_ = -1;
  std::optional<ProcessEnd> end_;
};

// Whole lines of the text that contain `part`.
int CountLines(std::string_view text, std::string_view part);

}  // namespace kestrelbridge::test
