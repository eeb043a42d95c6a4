// The picture: from the ring to any number of viewers.

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <deque>
#include <thread>

#include "console/console_stage.h"
#include "console/unit_history.h"

namespace kestrelbridge::test {
namespace {

using console::kDiscontinuityFlag;
using console::kKeyframeFlag;

constexpr char kBlock[] = "/dev/shm/kestrelbridge_framebuffer";
constexpr char kBlockAway[] = "/dev/shm/away";

// A unit that the viewer has got; 0 when none came. Texts are passed over.
std::uint32_t NextNumber(WebSocketClient& viewer, Frame* unit = nullptr) {
  for (;;) {
    Frame frame = viewer.Receive();
    if (frame.opcode != kTextFrame) {
      const std::uint32_t number = UnitNumber(frame);
      if (unit != nullptr) {
        *unit = std::move(frame);
      }
      return number;
    }
  }
}

TEST(VideoSocket, TellsWhyThereIsNoPictureUntilThereIs) {
  OpenRing();
  ASSERT_EQ(std::rename(kBlock, kBlockAway), 0);
  const ConsoleStage stage;
  WebSocketClient viewer(stage.port, "/video");
  EXPECT_NE(viewer.ReceiveText(R"("reason":"no_ring")"), "");
  EXPECT_EQ(Fetch(stage.port, {.line = "GET /snapshot.h264"}).status, 503);
  ASSERT_EQ(std::rename(kBlockAway, kBlock), 0);
  EXPECT_NE(viewer.ReceiveText(R"("reason":"no_video")"), "") << "this process holds the ring";
  std::atomic<std::uint32_t> number{1};  // none that a viewer could begin with
  std::atomic<bool> done{false};
  std::thread publisher([&] {
    while (!done) {
      Publish(number);
      std::this_thread::sleep_for(std::chrono::milliseconds{10});
    }
  });
  EXPECT_NE(viewer.ReceiveText(R"("reason":"no_keyframe")"), "");
  number = 7;
  EXPECT_EQ(NextNumber(viewer), 7U);
  EXPECT_NE(viewer.ReceiveText(R"({"type":"streaming"})"), "");
  done = true;
  publisher.join();
}

TEST(VideoSocket, BeginsWithTheLastKeyframeAndLosesNothingForThirty) {
  OpenRing();
  const ConsoleStage stage;
  constexpr std::uint32_t kFirst = 39;  // a keyframe
  constexpr std::uint32_t kEnd = 140;
  Publish(7);
  for (std::uint32_t number = kFirst; number < 50; ++number) {
    Publish(number, number == kFirst ? 3'000 : 2'000);
  }
  ASSERT_TRUE(Eventually(
      [&] { return Fetch(stage.port, {.line = "GET /snapshot.h264"}).body.size() == 3'000; }));
  constexpr int kViewers = 30;
  std::deque<WebSocketClient> viewers;
  for (int i = 0; i < kViewers; ++i) {
    ASSERT_EQ(viewers.emplace_back(stage.port, "/video").status(), 101);
    Frame first;
    ASSERT_EQ(NextNumber(viewers.back(), &first), kFirst) << "viewer " << i;
    EXPECT_TRUE(HasFlag(first, kKeyframeFlag));
  }
  for (std::uint32_t number = kFirst + 1; number < kEnd; ++number) {
    if (number >= 50) {
      Publish(number, number == 60 ? 290'000 : 2'000);  // one as large as they get
    }
    // Before the next one is there: who is slow because this machine is, is not late.
    for (WebSocketClient& viewer : viewers) {
      Frame unit;
      ASSERT_EQ(NextNumber(viewer, &unit), number);
      EXPECT_EQ(HasFlag(unit, kKeyframeFlag), IsKeyNumber(number)) << number;
      EXPECT_FALSE(HasFlag(unit, kDiscontinuityFlag)) << number;
    }
  }
}

TEST(VideoSocket, AStalledViewerGoesOnAtTheNewestKeyframeAndHarmsNobody) {
  OpenRing();
  const ConsoleStage stage;
  Publish(7);
  WebSocketClient stalled(stage.port, "/video");
  WebSocketClient other(stage.port, "/video");
  ASSERT_EQ(NextNumber(stalled), 7U);
  ASSERT_EQ(NextNumber(other), 7U);
  // More than all buffers on the way take, over more than the longest delay.
  constexpr std::uint32_t kEnd = 200;
  const auto start = std::chrono::steady_clock::now();
  for (std::uint32_t number = 8; number < kEnd; ++number) {
    Publish(number, 100'000);
    ASSERT_EQ(NextNumber(other), number);
    std::this_thread::sleep_until(start + (number - 7) * std::chrono::milliseconds{10});
  }
  std::uint32_t expected = 8;
  bool has_skipped = false;
  for (std::uint32_t number = 7; number != kEnd - 1;) {
    Frame unit;
    number = NextNumber(stalled, &unit);
    ASSERT_NE(number, 0U);
    if (number != expected) {
      ASSERT_GT(number, expected) << "never back";
      EXPECT_TRUE(IsKeyNumber(number)) << number;
      EXPECT_TRUE(HasFlag(unit, kDiscontinuityFlag));
      has_skipped = true;
    }
    expected = number + 1;
  }
  EXPECT_TRUE(has_skipped);
  const std::string metrics = Fetch(stage.port, {.line = "GET /metrics"}).body;
  EXPECT_NE(metrics.find("kestrelbridge_console_viewers 2\n"), std::string::npos) << metrics;
  EXPECT_EQ(metrics.find("kestrelbridge_console_units_skipped_total 0\n"), std::string::npos);
}

TEST(VideoSocket, TakesNoMoreViewersThanItCanServe) {
  const ConsoleStage stage;
  std::deque<WebSocketClient> viewers;
  for (int i = 0; i < 64; ++i) {
    ASSERT_EQ(viewers.emplace_back(stage.port, "/video").status(), 101);
    ASSERT_NE(viewers.back().ReceiveText("waiting"), "");
  }
  WebSocketClient late(stage.port, "/video");
  EXPECT_EQ(late.ReceiveClose(), 1013);
  viewers.pop_front();
  EXPECT_TRUE(Eventually(
      [&] { return WebSocketClient(stage.port, "/video").ReceiveText("waiting") != ""; }));
}

}  // namespace
}  // namespace kestrelbridge::test
