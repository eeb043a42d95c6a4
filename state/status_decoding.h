// What the camera says about itself.
#pragma once

#include <cstdint>
#include <span>

namespace kestrelbridge {

// Takes one command frame of the camera. A frame with a wrong check sum is reported and dropped.
// Camera's receive thread.
void DecodeStatusFrame(std::span<const std::uint8_t> frame);

}  // namespace kestrelbridge
