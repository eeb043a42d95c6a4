// Telemetry as the main application gets it: which records, in which order, how often.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "end_to_end/daemon_stage.h"

namespace kestrelbridge::test {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// A record's letter: t(ext), s(tatus), h(istogram); ? for anything else.
char LetterOf(const Bytes& record) {
  if (record.size() > 1 && record[0] == 7 && record.back() == ',') {
    return 't';
  }
  if (record.size() == 28 && record[0] == 6 && record[1] == 0) {
    return 's';
  }
  return record.size() == 66 && record[0] == 6 && record[1] == 1 ? 'h' : '?';
}

class Telemetry : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(camera_.Connect());
    ASSERT_TRUE(daemon_.WaitForLine("Camera connection found"));
  }

  // Letters of the records, in order, up to and with the next text that makes it `texts`.
  std::string Records(int texts) {
    std::string letters;
    while (std::ranges::count(letters, 't') < texts) {
      const auto received = main_application_.Receive();
      if (!received) {
        ADD_FAILURE() << "telemetry has stopped after " << letters;
        break;
      }
      letters += LetterOf(received->bytes);
    }
    return letters;
  }

  PeerSocket main_application_{{.host = "127.0.0.1", .port = 5000}};
  ScriptedCamera camera_;
  ChildProcess daemon_{DaemonCommand()};
};

// A second is ten ticks, so that what comes between two texts does not depend on the machine.
TEST_F(Telemetry, ASecondIsOneTextAndFiveStatusRecordsOnceTheCameraHasSentCommandData) {
  camera_.SendUnit(MakeUnit(1000, 1));
  camera_.SendNextHeader();
  EXPECT_FALSE(main_application_.Receive(milliseconds{2'500})) << "video is no command data";
  camera_.Send(CommandDataDatagram(1, EmptyCommandData()));
  Records(1);
  const auto start = Clock::now();
  EXPECT_EQ(Records(4), "ssssstssssstssssstssssst");
  EXPECT_GE(Clock::now() - start, milliseconds{3'500});  // four seconds, less a late first text
  EXPECT_LT(Clock::now() - start, milliseconds{4'500} + Patience() / 6);
}

TEST_F(Telemetry, AHistogramFollowsEachStatusUntilThreeSecondsAfterTheLastPush) {
  std::atomic<bool> goes_on{true};
  Clock::time_point last_push;
  std::thread stream([&] {
    Bytes data = EmptyCommandData();  // enough to be looked at once
    std::ranges::copy(CommandFrame(0x02, 0, Bytes(64, 9)), data.begin());
    for (std::uint32_t unit = 0; goes_on; ++unit) {
      camera_.Send(CommandDataDatagram(static_cast<std::uint16_t>(unit), data));
      last_push = Clock::now();
      camera_.SendUnit(MakeUnit(20'000, unit));
      std::this_thread::sleep_for(milliseconds{100});
    }
  });
  EXPECT_TRUE(Eventually([&] { return Records(1).ends_with("ht"); }));
  EXPECT_EQ(Records(2), "shshshshshtshshshshsht");
  goes_on = false;
  stream.join();
  for (std::string records; !records.ends_with("tssssst"); records = "t" + Records(1)) {
    ASSERT_LT(Clock::now() - last_push, milliseconds{6'000} + Patience());
  }
  // The histograms ended up to a second before the first whole second without one.
  EXPECT_GE(Clock::now() - last_push, milliseconds{3'000});
  EXPECT_EQ(Records(1), "ssssst") << "the rest goes on";
}

}  // namespace
}  // namespace kestrelbridge::test
