// The ring for the source's tests: a daemon's writer in this very process, and units of the clip.
#pragma once

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace kestrelbridge::test {

using Unit = std::vector<std::uint8_t>;

// The access units of the clip that comes along: 120, a keyframe every 30.
const std::vector<Unit>& ClipUnits();

// Starts GStreamer with our plugin.
void StartGstreamer();

class RingStage : public testing::Test {
 protected:
  void SetUp() override;

  static void StartDaemon();

  // Units of the clip, on from where it stands; it begins anew after its end.
  void Publish(int count);

  int next_ = 0;
};

}  // namespace kestrelbridge::test
