// Telemetry as the main application gets it: which records, in which order, how often.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "end_to_end/daemon_bench.h"

namespace kestrelbridge {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr std::uint16_t kTelemetryPort = 5000;

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

// The main application, listening.
class Listener {
 public:
  // Letters of the records, in order, up to and with the next text that makes it `texts`.
  std::string Records(int texts) {
    std::string letters;
    while (std::ranges::count(letters, 't') < texts) {
      const auto received = socket_.Receive();
      if (!received) {
        ADD_FAILURE() << "telemetry has stopped after " << letters;
        break;
      }
      letters += LetterOf(received->bytes);
    }
    return letters;
  }
  bool IsSilentFor(milliseconds time) { return !socket_.Receive(time); }

 private:
  UdpSocket socket_{{.host = "127.0.0.1", .port = kTelemetryPort}};
};

Bytes HistogramPush() { return CommandFrame(0x02, 0, Bytes(64, 9)); }

// Sends what keeps coming, from a thread of its own: histograms, and pictures when asked to.
class Stream {
 public:
  Stream(ScriptedCamera& camera, bool with_video)
      : thread_([this, &camera, with_video] { Run(camera, with_video); }) {}
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  ~Stream() { Stop(); }

  // Returns when the last push had gone out.
  Clock::time_point Stop() {
    goes_on_ = false;
    if (thread_.joinable()) {
      thread_.join();
    }
    return last_push_;
  }

 private:
  void Run(ScriptedCamera& camera, bool with_video) {
    constexpr std::uint32_t kUnitsPerPush = 6;
    for (std::uint32_t unit = 0; goes_on_; ++unit) {
      if (unit % kUnitsPerPush == 0) {
        Bytes data = EmptyCommandData();  // enough to be looked at once
        const Bytes push = HistogramPush();
        std::ranges::copy(push, data.begin());
        camera.Send(CommandDataDatagram(static_cast<std::uint16_t>(unit), data));
        last_push_ = Clock::now();
      }
      if (with_video) {
        camera.SendUnit(MakeUnit(20'000, unit));
      }
      std::this_thread::sleep_for(milliseconds{33});
    }
  }

  std::atomic<bool> goes_on_{true};
  Clock::time_point last_push_;  // the thread's; read once it has ended
  std::thread thread_;
};

std::string Repeated(const std::string& text, int times) {
  std::string all;
  for (int i = 0; i < times; ++i) {
    all += text;
  }
  return all;
}

class Telemetry : public testing::Test {
 protected:
  void Start() {
    ASSERT_TRUE(camera_.Connect());
    ASSERT_TRUE(daemon_.WaitForLine("Camera connection found"));
  }

  Listener main_application_;
  ScriptedCamera camera_;
  ChildProcess daemon_{DaemonCommand()};
};

TEST_F(Telemetry, IsSilentUntilTheCameraHasSentCommandData) {
  Start();
  camera_.SendUnit(MakeUnit(1000, 1));
  camera_.SendNextHeader();
  EXPECT_TRUE(main_application_.IsSilentFor(milliseconds{2'500}));
  camera_.Send(CommandDataDatagram(1, EmptyCommandData()));
  EXPECT_FALSE(main_application_.IsSilentFor(Patience()));
}

// A second is ten ticks, so that what comes between two texts does not depend on the machine.
TEST_F(Telemetry, ASecondIsOneTextAndFiveStatusRecords) {
  Start();
  camera_.Send(CommandDataDatagram(1, EmptyCommandData()));
  main_application_.Records(1);
  const auto start = Clock::now();
  EXPECT_EQ(main_application_.Records(4), Repeated("ssssst", 4));
  EXPECT_GE(Clock::now() - start, milliseconds{3'500});  // four seconds, less a late first text
  EXPECT_LT(Clock::now() - start, milliseconds{4'500} + Patience() / 6);
}

class TelemetryWithHistogram : public Telemetry, public testing::WithParamInterface<bool> {};

TEST_P(TelemetryWithHistogram, AHistogramFollowsEachStatusUntilThreeSecondsAfterTheLastPush) {
  Start();
  Stream stream(camera_, GetParam());
  ASSERT_TRUE(Eventually([&] { return main_application_.Records(1).ends_with("ht"); }));
  EXPECT_EQ(main_application_.Records(4), Repeated("shshshshsht", 4));

  const auto last_push = stream.Stop();
  std::string records;
  while (!records.ends_with("tssssst")) {
    records = main_application_.Records(1);
    ASSERT_LT(Clock::now() - last_push, milliseconds{6'000} + Patience());
    records.insert(0, "t");
  }
  // The histograms ended up to a second before the first whole second without one.
  EXPECT_GE(Clock::now() - last_push, milliseconds{3'000});
  EXPECT_EQ(main_application_.Records(2), Repeated("ssssst", 2)) << "the rest goes on";
}

INSTANTIATE_TEST_SUITE_P(Stream, TelemetryWithHistogram, testing::Bool(), [](const auto& row) {
  return row.param ? "WhileVideoFlows" : "AndNothingElse";
});

}  // namespace
}  // namespace kestrelbridge
