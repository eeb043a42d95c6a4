// The commands that the simulated camera obeys.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "tools/camera/camera_model.h"

namespace kestrelbridge::tools {

// Obeys one command frame, already found right by tools/packet_check: changes the model, and
// returns what the camera was told, in words. A command that the camera does not have is returned
// in hex, a code that it does not have is said to be ignored; neither changes anything. `start` is
// the state that a reset brings back. Pure.
std::string ObeyCommand(std::span<const std::uint8_t> frame, const CameraModel& start,
                        SteadyTime now, CameraModel& model);

}  // namespace kestrelbridge::tools
