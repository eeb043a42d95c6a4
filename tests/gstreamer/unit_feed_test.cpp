// The feed's thread, its consumer, and who interrupts them, all at once.
#include "gstreamer/unit_feed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include "support/eventually.h"
#include "video/frame_buffers.h"

namespace kestrelbridge::gstreamer::test {
namespace {

using kestrelbridge::test::Eventually;
using std::chrono::milliseconds;

// A slice of some picture, as far as its header tells, and a number.
std::vector<std::uint8_t> NumberedSlice(std::uint32_t number) {
  return {
      0,   0, 0, 1, 0x41, static_cast<std::uint8_t>(number >> 8), static_cast<std::uint8_t>(number),
      0x80};
}

TEST(UnitFeed, HandsOutEachUnitInOrderHoweverOftenItIsInterrupted) {
  ASSERT_EQ(InitFrameBuffers(), 0);
  UnitFeed feed(FrameBlockReader::Start::kOldest,
                [] { return UnitPolicy{.wait_for_keyframe = false, .skip_on_loss = false}; });
  constexpr std::uint32_t kUnits = 2000;
  std::atomic<std::uint32_t> taken{0};
  std::thread writer([&] {
    for (std::uint32_t number = 0; number < kUnits; ++number) {
      // Who comes late still finds the first one: the oldest of the ring are a hundred.
      EXPECT_TRUE(Eventually([&] { return number < taken + 90; }));
      PublishVideoUnit(NumberedSlice(number));
    }
  });
  std::atomic<bool> done{false};
  std::thread interrupter([&] {
    while (!done) {
      feed.Interrupt();
      feed.Continue();
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  });
  OutgoingUnit unit;
  bool in_order = true;
  while (taken < kUnits && in_order) {
    const RingState state = feed.Take(unit, milliseconds(100));
    if (state == RingState::kUnit) {
      in_order = in_order && unit.bytes == NumberedSlice(taken);
      ++taken;
    }
  }
  done = true;
  writer.join();
  interrupter.join();
  EXPECT_TRUE(in_order);
  EXPECT_EQ(feed.counters().units, kUnits);
}

TEST(UnitFeed, EndsAtOnceWhereverItsThreadWaits) {
  ASSERT_EQ(InitFrameBuffers(), 0);
  auto shortest = std::chrono::steady_clock::duration::max();
  for (int round = 0; round < 50; ++round) {
    std::chrono::steady_clock::time_point begin;
    {
      UnitFeed feed(FrameBlockReader::Start::kLive, [] { return UnitPolicy{}; });
      OutgoingUnit unit;
      feed.Take(unit, milliseconds(round % 5));
      begin = std::chrono::steady_clock::now();
    }
    shortest = std::min(shortest, std::chrono::steady_clock::now() - begin);
  }
  EXPECT_LT(shortest, milliseconds(10));
}

}  // namespace
}  // namespace kestrelbridge::gstreamer::test
