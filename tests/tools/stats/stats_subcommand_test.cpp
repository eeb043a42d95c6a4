// kestrelctl stats, run for real; the test is the daemon, or worse.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/child_process.h"

namespace kestrelbridge::test {
namespace {

using FileTime = std::filesystem::file_time_type;

constexpr char kFile[] = "/run/kestrelbridge/metrics.prom";

// As the daemon does: beside it, then renamed.
void Write(int published, int start, FileTime written = FileTime::clock::now()) {
  const std::string beside = std::string(kFile) + ".tmp";
  std::ofstream(beside) << "# HELP kestrelbridge_units_total Units.\n"
                           "# TYPE kestrelbridge_units_total counter\n"
                           "kestrelbridge_units_total{outcome=\"published\"} "
                        << published
                        << "\n\n?!\nbroken{ 1\nno_number x\nevil\x1b[2J{\"} 7\n"
                           "# TYPE kestrelbridge_start_time_seconds gauge\n"
                           "kestrelbridge_start_time_seconds "
                        << start << "\n";
  std::filesystem::last_write_time(beside, written);
  std::filesystem::rename(beside, kFile);
}

TEST(StatsCommand, ShowsTotalsAndTheRateOfTheLatestSecond) {
  const auto now = FileTime::clock::now();
  Write(100, 1, now);
  ChildProcess stats(Kestrelctl({"stats", "--count", "3"}));
  ASSERT_TRUE(stats.WaitForLine("published"));
  EXPECT_EQ(CountLines(stats.Output(), "100             -"), 1) << stats.Output();
  Write(160, 1, now + std::chrono::seconds{2});
  ASSERT_TRUE(stats.WaitForLine("160          30.0")) << stats.Output();
  Write(5, 2, now + std::chrono::seconds{4});  // another daemon
  EXPECT_EQ(stats.WaitForExit(), ExitedWith(0));
  EXPECT_EQ(CountLines(stats.Output(), "5             -"), 1) << stats.Output();
  EXPECT_EQ(stats.Output().find('\x1b'), std::string::npos);
}

TEST(StatsCommand, SaysSinceWhenTheFileIsStaleAndWhenItIsMissing) {
  Write(7, 1, FileTime::clock::now() - std::chrono::seconds{100});
  ChildProcess stale(Kestrelctl({"stats", "--duration", "0.5"}));
  EXPECT_EQ(stale.WaitForExit(), ExitedWith(0));
  EXPECT_EQ(CountLines(stale.Error(), "not written for 10"), 1) << stale.Error();
  EXPECT_EQ(CountLines(stale.Output(), "published"), 1) << "the last values all the same";
  std::filesystem::remove(kFile);
  ChildProcess missing(Kestrelctl({"stats"}));
  EXPECT_EQ(missing.WaitForExit(), ExitedWith(1));
  EXPECT_EQ(CountLines(missing.Error(), "cannot read /run/kestrelbridge/metrics.prom: No such"), 1);
}

}  // namespace
}  // namespace kestrelbridge::test
