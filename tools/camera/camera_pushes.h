// What the simulated camera says about itself, as command frames. Pure functions.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "state/camera_state.h"
#include "state/push_layout.h"
#include "tools/camera/annexb.h"
#include "tools/camera/camera_model.h"

namespace kestrelbridge::tools {

using Histogram = std::array<std::uint8_t, kHistogramSize>;

// 64 values that move when the picture does: how often bytes of each size occur in the unit, the
// most frequent one as 255. No brightness, but alive.
Histogram HistogramOf(AccessUnit unit);

inline constexpr std::size_t kPushesSize =
    kStatusPushLength + kSettingsPushLength + kBatteryPushLength + kHistogramPushLength;

// The pushes as one run of whole frames, at most kPushesSize bytes: status, settings, battery, and
// the histogram while it is on. frame_sequence is the first one's; it goes up by one a frame.
std::vector<std::uint8_t> BuildPushes(const CameraModel& model, const Histogram& histogram,
                                      std::uint16_t& frame_sequence);

}  // namespace kestrelbridge::tools
