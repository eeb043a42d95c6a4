#include "tools/camera_pushes.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <numeric>
#include <vector>

#include "base/byte_order.h"
#include "camera/frame_scanner.h"
#include "state/camera_state.h"
#include "tools/camera_assignment.h"
#include "video/command_data.h"

namespace kestrelbridge {
namespace {

using Bytes = std::vector<std::uint8_t>;

// Scans that the daemon makes of so many datagrams in a row; none may lose a push.
int ScansOf(bool histogram_on, int datagrams) {
  GatherCommandData(Bytes(501));  // ends the batch that another test may have begun
  ClearCameraState();
  CameraModel model = StartModel({});
  model.histogram_on = histogram_on;
  std::uint16_t sequence = 0;
  int scans = 0;
  for (std::uint32_t number = 1; number <= static_cast<std::uint32_t>(datagrams); ++number) {
    Set(model, "shots_left", number);
    Set(model, "iso", number);
    Set(model, "battery_level", number);
    Histogram histogram{};
    histogram.fill(static_cast<std::uint8_t>(number));
    GatherCommandData(BuildPushes(model, histogram, sequence));
    const CameraState state = SnapshotCameraState();
    if (state.shots_left != number) {
      continue;  // the daemon gathers still
    }
    ++scans;
    EXPECT_EQ(state.iso, number);
    EXPECT_EQ(static_cast<std::uint32_t>(state.battery_level), number);
    EXPECT_EQ(state.histogram.front(), histogram_on ? number : 0);
    EXPECT_EQ(state.histogram.back(), histogram_on ? number : 0);
  }
  return scans;
}

TEST(CameraPushes, TheDaemonReadsAllPushesOfEveryThirdDatagramAtLeast) {
  EXPECT_EQ(ScansOf(true, 60), 30);
  EXPECT_EQ(ScansOf(false, 60), 20);
}

TEST(CameraPushes, FramesOfARunAreNumberedOneByOne) {
  std::uint16_t sequence = 0xFFFE;
  const Bytes pushes = BuildPushes(StartModel({}), Histogram{}, sequence);
  EXPECT_EQ(pushes.size(), kPushesSize);
  std::vector<std::uint16_t> sequences;
  for (auto rest = std::span(pushes); !rest.empty();) {
    const auto frame = CommandFrameAt(rest);
    ASSERT_FALSE(frame.empty());
    sequences.push_back(LoadLe16(frame, 6));
    rest = rest.subspan(frame.size());
  }
  EXPECT_EQ(sequences, (std::vector<std::uint16_t>{0xFFFE, 0xFFFF, 0, 1}));
  EXPECT_EQ(sequence, 2);
}

TEST(CameraPushes, TheHistogramFollowsTheUnit) {
  EXPECT_EQ(HistogramOf({}), Histogram{});
  Bytes all_alike(65'536, 0x05);
  EXPECT_EQ(HistogramOf(all_alike)[1], 255);
  EXPECT_EQ(HistogramOf(all_alike)[2], 0);
  Bytes each_once(256);
  std::iota(each_once.begin(), each_once.end(), std::uint8_t{0});
  EXPECT_EQ(HistogramOf(each_once).front(), 255);
  EXPECT_EQ(HistogramOf(each_once).back(), 255);
  each_once.insert(each_once.end(), 4, 0xFF);
  EXPECT_EQ(HistogramOf(each_once).front(), 127);
}

}  // namespace
}  // namespace kestrelbridge
