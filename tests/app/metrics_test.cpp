// The metrics file: what it promises to its readers, and to the reader of its documentation.
#include "app/metrics.h"

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <atomic>
#include <filesystem>
#include <regex>
#include <set>
#include <string>
#include <thread>

#include "base/counters.h"
#include "base/text_file.h"
#include "share/share_metrics.h"
#include "state/command_data.h"
#include "support/pushes.h"
#include "support/temporary_folder.h"

namespace kestrelbridge::test {
namespace {

// The first groups of all matches.
std::multiset<std::string> Matches(const std::string& text, const char* pattern) {
  const std::regex regex(pattern, std::regex::multiline);
  std::multiset<std::string> matches;
  for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match) {
    matches.insert((*match)[1]);
  }
  return matches;
}

TEST(MetricsFile, StaysAsItWasWhenTheDiskIsFull) {
  std::filesystem::create_directory("/run/small");
  ASSERT_EQ(mount("tmpfs", "/run/small", "tmpfs", 0, "size=16k"), 0);
  ASSERT_EQ(ReplaceTextFile("/run/small/file", "old"), 0);
  EXPECT_EQ(ReplaceTextFile("/run/small/file", std::string(100'000, 'n')), -1);
  EXPECT_EQ(ReadFile("/run/small/file"), "old");
  EXPECT_FALSE(std::filesystem::exists("/run/small/file.tmp"));
}

TEST(MetricsFile, HoldsTheMetricsThatTheDocumentationLists) {
  const std::string text = MetricsText(0) + share::ShareMetricsText({}, 0);
  const std::string documentation = ReadFile(KESTRELBRIDGE_SOURCE_DIR "/docs/metrics.md");
  const auto names = Matches(text, R"(^# TYPE (\w+) )");
  EXPECT_FALSE(names.empty());
  // The console's stand there as well, and have a test of their own.
  EXPECT_EQ(names, Matches(documentation, R"(^\| `(?!kestrelbridge_console_)(\w+)` )"));
  // Every value of a label, too.
  const auto documented = Matches(documentation, R"(`(\w+="\w+")`)");
  for (const std::string& label : Matches(text, R"(\{(\w+="\w+")\} )")) {
    EXPECT_TRUE(documented.contains(label)) << label;
  }
}

// No datagram is long enough to bring it about.
TEST(Counters, CountACommandDataOverflowWhichKeepsTheNewestBytes) {
  Bytes older = Push(kHistogram);
  older.resize(400);
  Bytes newest = Push(kBattery);
  newest.resize(59'900);
  GatherCommandData(older);
  GatherCommandData(newest);
  EXPECT_EQ(GetCounters().histogram_pushes.Value(), 0U);
  EXPECT_EQ(GetCounters().battery_pushes.Value(), 1U);
  EXPECT_NE(MetricsText(0).find(R"(kestrelbridge_overflows_total{buffer="command_data"} 1)"),
            std::string::npos);
}

}  // namespace
}  // namespace kestrelbridge::test
