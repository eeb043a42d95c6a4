#include "state/camera_state.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "state/status_decoding.h"
#include "state/telemetry.h"
#include "support/pushes.h"

namespace kestrelbridge::test {
namespace {

using test::Push;

// Two settings pushes that differ in every text.
const Bytes kFirstPush = test::PushWith(
    test::kSettings, {{13, {4}}, {14, {1}}, {2, {0x1E, 0, 0}}, {23, {4}}, {32, {1}}});
const Bytes kSecondPush = test::PushWith(
    test::kSettings, {{13, {48}}, {14, {8}}, {2, {0x40, 0x9F, 0}}, {23, {1}}, {32, {0}}});
// The camera pushes as fast as it can; every snapshot and every text record made meanwhile shows
// one push, never parts of two.
TEST(CameraState, AReaderNeverSeesHalfAPush) {
  ClearCameraState();
  DecodeStatusFrame(kSecondPush);
  const std::string second_text = test::TelemetryText();
  DecodeStatusFrame(kFirstPush);
  const std::string first_text = test::TelemetryText();
  std::atomic<bool> done = false;
  std::thread camera([&] {
    for (std::uint32_t round = 0; !done; ++round) {
      DecodeStatusFrame(kFirstPush);
      DecodeStatusFrame(Push(test::kHistogram, static_cast<std::uint8_t>(round)));
      DecodeStatusFrame(kSecondPush);
    }
  });
  constexpr int wanted = 500;  // of each push
  int firsts = 0;
  int seconds = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while ((firsts < wanted || seconds < wanted) && std::chrono::steady_clock::now() < deadline) {
    const CameraState state = SnapshotCameraState();
    const std::string text = test::TelemetryText();
    firsts += text == first_text ? 1 : 0;
    seconds += text == second_text ? 1 : 0;
    if (text != first_text && text != second_text) {
      ADD_FAILURE() << text;
      break;
    }
    if (std::ranges::adjacent_find(state.histogram, std::ranges::not_equal_to()) !=
        state.histogram.end()) {
      ADD_FAILURE() << "torn histogram";
      break;
    }
    ExpireHistogram(state.histogram_time_ms, state.histogram_time_ms + 3001);
  }
  done = true;
  camera.join();
  EXPECT_GE(firsts, wanted);
  EXPECT_GE(seconds, wanted);
}

}  // namespace
}  // namespace kestrelbridge::test
