#include "base/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

#include "base/counters.h"

namespace kestrelbridge::test {
namespace {

using Ends = std::array<int, 2>;  // what is read, what is written

// Runs the body in a process whose standard error is the other end's. Returns the exit code.
class Logger {
 public:
  Logger(const Ends& ends, const std::function<int()>& body) : pid_(fork()) {
    if (pid_ == 0) {
      dup2(ends[1], STDERR_FILENO);
      _exit(body());
    }
  }
  int ExitCode() const {
    int status = 0;
    waitpid(pid_, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_;
};

Ends Pipe() {
  Ends ends{};
  EXPECT_EQ(pipe(ends.data()), 0);
  return ends;
}

Ends JournalLike() {
  Ends ends{};
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
  return ends;
}

std::string ReadAvailable(int descriptor) {
  fcntl(descriptor, F_SETFL, O_NONBLOCK);
  std::string text(10'000'000, '\0');
  std::size_t size = 0;
  for (ssize_t count = 0; (count = read(descriptor, &text[size], text.size() - size)) > 0;) {
    size += static_cast<std::size_t>(count);
  }
  text.resize(size);
  return text;
}

struct FullOutlet {
  const char* name;
  Ends (*open)();
  bool may_open_anew;
};
void PrintTo(const FullOutlet& outlet, std::ostream* out) { *out << outlet.name; }
class LogIntoFull : public testing::TestWithParam<FullOutlet> {};
INSTANTIATE_TEST_SUITE_P(Outlets, LogIntoFull,
                         testing::Values(FullOutlet{"Pipe", Pipe, true},
                                         FullOutlet{"PipeThatIsNotOurs", Pipe, false},
                                         FullOutlet{"Journal", JournalLike, true}),
                         [](const auto& row) { return std::string(row.param.name); });

constexpr int kThreads = 4;
constexpr int kLinesEach = 3000;

// Lines "thread number filling", of lengths on both sides of what a pipe takes at once.
void LogMuch(int thread) {
  for (int number = 0; number < kLinesEach; ++number) {
    const std::string filling(number % 100 == 0 ? 9000U : 40U, '#');
    Log("%d %d %s\n", thread, number, filling.c_str());
  }
}

// Nobody reads until everything has been logged.
TEST_P(LogIntoFull, NobodyWaitsLinesAreWholeAndTheMissingOnesAreCounted) {
  const Ends ends = GetParam().open();
  const int given_flags = fcntl(ends[1], F_GETFL);
  const Ends gate = JournalLike();  // the process has gate[1]
  const Logger logger(ends, [&] {
    rlimit given{};
    getrlimit(RLIMIT_NOFILE, &given);
    const rlimit no_descriptor_left{.rlim_cur = 3, .rlim_max = given.rlim_max};
    setrlimit(RLIMIT_NOFILE, GetParam().may_open_anew ? &given : &no_descriptor_left);
    OpenLog();
    setrlimit(RLIMIT_NOFILE, &given);
    std::array<std::thread, kThreads> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads[static_cast<std::size_t>(i)] = std::thread(LogMuch, i);
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    char read_now = 0;
    EXPECT_EQ(write(gate[1], "!", 1), 1);
    EXPECT_EQ(read(gate[1], &read_now, 1), 1);
    const std::uint64_t dropped = GetCounters().log_lines_dropped.Value();
    Log("dropped %d\n", static_cast<int>(dropped));  // the first after room has been made
    Log("last\n");
    return 0;
  });
  char full = 0;
  ASSERT_EQ(read(gate[0], &full, 1), 1) << "it waits";
  std::string text = ReadAvailable(ends[0]);
  ASSERT_EQ(write(gate[0], "!", 1), 1);
  EXPECT_EQ(logger.ExitCode(), 0);
  text += ReadAvailable(ends[0]);
  EXPECT_EQ(fcntl(ends[1], F_GETFL), given_flags) << "the outlet is shared with who started us";

  std::map<int, int> latest;
  int lines = 0;
  int missing = 0;
  int dropped = -1;
  std::istringstream stream(text);
  const std::regex whole("([0-9]+) ([0-9]+) (#{40}|#{9000})");
  for (std::string line; std::getline(stream, line);) {
    int count = 0;
    if (std::smatch match; std::regex_match(line, match, whole)) {
      const int number = std::stoi(match[2]);
      const auto [at, is_first] = latest.try_emplace(std::stoi(match[1]), number);
      EXPECT_TRUE(is_first || at->second < number) << "order";
      at->second = number;
      ++lines;
    } else if (std::sscanf(line.c_str(), "(%d lines of the log are missing here)", &count) == 1) {
      missing += count;
    } else if (std::sscanf(line.c_str(), "dropped %d", &count) != 1) {
      EXPECT_EQ(line, "last");
    } else {
      dropped = count;
    }
  }
  EXPECT_GT(lines, 0);
  EXPECT_EQ(lines + missing, kThreads * kLinesEach);
  EXPECT_EQ(dropped, missing);
  EXPECT_TRUE(text.ends_with("\nlast\n"));
}

TEST(Log, ShowsControlCharactersAndLeavesTheRestAlone) {
  struct Row {
    std::string text;
    std::string shown;
  };
  const Row rows[] = {
      {"\x1b[2J\x07\x7f", R"(\x1b[2J\x07\x7f)"},
      {"\tTab\r\n line", "\tTab\r\n line"},
      {"\xc2\x9b"
       "31m",
       R"(\xc2\x9b31m)"},  // the same in UTF-8
      {"Gr\xc3\xbc\xc3\x9f\x65 \xc2\xa0\xc2", "Gr\xc3\xbc\xc3\x9f\x65 \xc2\xa0\xc2"},
      {R"(\x1b % "')", R"(\x1b % "')"},
      {std::string(9999, '\x01'),
       [] {
         std::string shown;
         for (int i = 0; i < 9999; ++i) {
           shown += R"(\x01)";
         }
         return shown;
       }()},
  };
  for (const Row& row : rows) {
    testing::internal::CaptureStderr();
    Log("%s\n", row.text.c_str());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), row.shown + "\n");
  }
}

}  // namespace
}  // namespace kestrelbridge::test
