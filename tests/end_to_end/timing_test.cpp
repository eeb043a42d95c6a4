// How often things happen: each period of the daemon, within five per cent, both ways. A machine
// that is busy lets a thread run late, never early: hence the shortest of many intervals is held
// against the upper bound. Now and then a thread sleeps in the middle of its round, too (for a
// page, for a lock of the allocator), so the one in the middle is held against the lower bound.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "end_to_end/daemon_stage.h"
#include "kestrelbridge/rc_block.h"

namespace kestrelbridge::test {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

// An interval between two moments of which the observer knows no more than that each lies between
// two of his looks. However late he is, what it took is not above `most` and not below `least`.
struct Moment {
  Clock::time_point not_before, not_after;
};
struct Intervals {
  std::vector<Seconds> least, most;
  void Take(Moment from, Moment to) {
    least.emplace_back(to.not_before - from.not_after);
    most.emplace_back(to.not_after - from.not_before);
  }
};

void ExpectPeriod(Intervals seen, Seconds period, const std::string& what) {
  ASSERT_FALSE(seen.most.empty()) << what;
  // What is known loosely says little of an interval that is too long. Where all are, it must do.
  std::vector<Seconds> least;
  for (std::size_t i = 0; i < seen.least.size(); ++i) {
    if (seen.most[i] - seen.least[i] < period / 25) {
      least.push_back(seen.least[i]);
    }
  }
  EXPECT_LE(std::ranges::min(least.empty() ? seen.least : least).count(), 1.05 * period.count())
      << what;
  std::ranges::sort(seen.most);
  EXPECT_GE(seen.most[seen.most.size() / 2].count(), 0.95 * period.count()) << what;
}

// Looks until the condition holds.
template <typename Condition>
Moment Observe(Condition condition, Seconds between_looks) {
  const auto end = Clock::now() + Patience();
  for (auto before = Clock::now();;) {
    const bool holds = condition();
    const auto now = Clock::now();
    if (holds || now > end) {
      EXPECT_TRUE(holds) << "waited in vain";
      return {.not_before = before, .not_after = now};
    }
    before = now;
    std::this_thread::sleep_for(between_looks);
  }
}

// The status file of the process's thread of that name. On a slow machine it gets its name some
// time after others already do their work. The first of several is meant, which are listed by their
// numbers: a sanitizer's own thread keeps the name of the main one.
std::string ThreadStatus(pid_t process, const std::string& name) {
  std::string status;
  const bool found = Eventually([&] {
    for (const auto& task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
      if (ReadFile(task.path() / "comm") == name + "\n") {
        status = task.path() / "status";
        return true;
      }
    }
    return false;
  });
  EXPECT_TRUE(found) << "no thread " << name;
  return status;
}

// How often the thread has gone to sleep.
std::uint64_t Sleeps(const std::string& status_path) {
  const std::string status = ReadFile(status_path);
  const std::size_t key = status.find("\nvoluntary_ctxt_switches:");
  return key == std::string::npos ? 0 : std::stoull(status.substr(key + 25));
}

// A thread that has nothing to do but its round sleeps once a round.
Intervals Rounds(pid_t process, const std::string& thread, Seconds period, int rounds) {
  const std::string status = ThreadStatus(process, thread);
  Intervals seen;
  std::uint64_t sleeps = Sleeps(status);
  const auto next_sleep = [&] {
    return Observe([&] { return std::exchange(sleeps, Sleeps(status)) != sleeps; }, period / 200);
  };
  Moment last = next_sleep();
  for (int round = 0; round < rounds; ++round) {
    const Moment next = next_sleep();
    if (next.not_after - last.not_before > period / 2) {
      seen.Take(last, next);
    }
    last = next;
  }
  return seen;
}

struct Round {
  const char* thread;
  Seconds period;
};

void ExpectRounds(pid_t process, const std::vector<Round>& rounds) {
  std::vector<std::thread> observers;
  for (const Round& round : rounds) {
    observers.emplace_back([=] {
      const int count = std::max(4, static_cast<int>(Seconds(1.5) / round.period));
      ExpectPeriod(Rounds(process, round.thread, round.period, count), round.period, round.thread);
    });
  }
  for (std::thread& observer : observers) {
    observer.join();
  }
}

TEST(Timing, EveryThreadKeepsItsPeriod) {
  constexpr Seconds kSecond(1), kTick(0.1), kPoll(0.02);
  ForgetEarlierRuns();
  const std::string rc_block = std::string("/dev/shm") + kRcBlockName;
  std::filesystem::create_directory(rc_block);  // cannot be had, to begin with
  DaemonRun run;
  ASSERT_TRUE(run.camera.Connect());
  ASSERT_TRUE(WaitForBridge(run.daemon.pid())) << run.daemon.Error();
  ExpectRounds(run.daemon.pid(), {{"kestrelbridge", kSecond},
                                  {"camera", kSecond},
                                  {"metrics", kSecond},
                                  {"telemetry", kTick},
                                  {"remote-control", kTick}});
  run.camera.Send(CommandDataDatagram(1, EmptyCommandData()));
  ASSERT_TRUE(WaitUntilRead(run.daemon.pid()));
  ExpectRounds(run.daemon.pid(), {{"remote-control", kSecond}, {"telemetry", kTick}});
  std::filesystem::remove(rc_block);
  ASSERT_TRUE(run.daemon.WaitForLine("Creating new shared raw RC", Patience(), 2));
  ExpectRounds(run.daemon.pid(), {{"remote-control", kPoll}});
}

TEST(Timing, TheStartPausesForASecond) {
  Intervals seen;
  for (int start = 0; start < 3; ++start) {
    const auto before = Clock::now();
    ChildProcess daemon(DaemonCommand({"--verbose"}));
    const auto said = [&](const char* line) {
      return Observe([&] { return CountLines(daemon.Error(), line) > 0; }, Seconds(0.002));
    };
    Moment pause_begins = said("Board supported");
    pause_begins.not_before = before;
    seen.Take(pause_begins, said("Using interface"));
  }
  ExpectPeriod(seen, Seconds(1), "start-up");
}

}  // namespace
}  // namespace kestrelbridge::test
