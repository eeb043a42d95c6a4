#include "state/camera_state.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "state/pushes.h"
#include "state/status_decoding.h"
#include "state/telemetry.h"

namespace kestrelbridge {
namespace {

using test::Bytes;
using test::Push;
using test::Put;

TEST(CameraState, ClearingForgetsEverything) {
  for (const std::size_t length :
       {test::kStatus, test::kSettings, test::kBattery, test::kHistogram}) {
    DecodeStatusFrame(Push(length, 0xFF));
  }
  UpdateCameraState([](CameraState& state) { state.wb_temp_set = 1800; });
  ClearCameraState();
  const CameraState state = SnapshotCameraState();
  const TextRecord text = BuildTextRecord(state);
  EXPECT_EQ(text.buffer, BuildTextRecord({}).buffer);
  EXPECT_EQ(BuildStatusRecord(state), BuildStatusRecord({}));
  EXPECT_EQ(BuildHistogramRecord(state), BuildHistogramRecord({}));
  EXPECT_EQ(state.histogram_time_ms, 0U);
  EXPECT_EQ(state.wb_temp_set, 0.0F);
}

// Two settings pushes that differ in every text.
Bytes SettingsPush(bool first) {
  Bytes push = Push(test::kSettings);
  Put(push, 13, {first ? std::uint8_t{4} : std::uint8_t{48}});
  Put(push, 14, {first ? std::uint8_t{1} : std::uint8_t{8}});
  Put(push, 2, first ? Bytes{0x1E, 0x00, 0x00} : Bytes{0x40, 0x9F, 0x00});
  Put(push, 23, {first ? std::uint8_t{4} : std::uint8_t{1}});
  Put(push, 32, {first ? std::uint8_t{1} : std::uint8_t{0}});
  return push;
}

constexpr char kFirst[] = "1280x720 24 30\" incandescent 50 Hz";
constexpr char kSecond[] = "4000x3000 240 1/8000 sunny auto";

std::string TextsOf(std::string_view telemetry) {
  return test::Item(telemetry, "resolution") + " " + test::Item(telemetry, "framerate") + " " +
         test::Item(telemetry, "shutter_set") + " " + test::Item(telemetry, "wb") + " " +
         test::Item(telemetry, "antiflicker");
}

// The camera pushes as fast as it can; every snapshot and every text record made meanwhile shows
// one push, never parts of two.
TEST(CameraState, AReaderNeverSeesHalfAPush) {
  ClearCameraState();
  const Bytes first = SettingsPush(true);
  const Bytes second = SettingsPush(false);
  DecodeStatusFrame(first);
  std::atomic<bool> done = false;
  std::thread camera([&] {
    for (std::uint32_t round = 0; !done; ++round) {
      DecodeStatusFrame(first);
      DecodeStatusFrame(Push(test::kHistogram, static_cast<std::uint8_t>(round)));
      DecodeStatusFrame(second);
    }
  });
  constexpr int wanted = 500;  // of each push
  int firsts = 0;
  int seconds = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while ((firsts < wanted || seconds < wanted) && std::chrono::steady_clock::now() < deadline) {
    const CameraState state = SnapshotCameraState();
    const TextRecord record = BuildTextRecord(state);
    const std::string texts =
        TextsOf({reinterpret_cast<const char*>(record.buffer.data()) + 1, record.length - 1});
    if (texts == kFirst) {
      ++firsts;
    } else if (texts == kSecond) {
      ++seconds;
    } else {
      ADD_FAILURE() << texts;
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
}  // namespace kestrelbridge
