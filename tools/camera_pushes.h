// What the simulated camera says about itself, as command frames.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace kestrelbridge {

inline constexpr std::size_t kStatusPushSize = 80;
using StatusPush = std::array<std::uint8_t, kStatusPushSize>;

// A camera status push whose payload is all zero.
StatusPush BuildStatusPush(std::uint16_t frame_sequence);

}  // namespace kestrelbridge
