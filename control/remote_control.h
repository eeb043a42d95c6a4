// Switches of the remote control, turned into camera commands.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "control/rc_block.h"

namespace kestrelbridge {

// What is remembered from one look at the block to the next.
struct RcMemory {
  std::array<std::int8_t, kRcChannelCount> positions{};  // -1, 0 or +1
  std::size_t slider_index = 0;                          // into kEvSteps
};

// Compares the values with what is remembered and does what the changes ask for. Remote-control
// thread.
void HandleRcValues(const RcValues& values, RcMemory& memory);

// Maps the block and starts the thread, which idles until the camera has sent command data and then
// looks at the block every 20 ms. A block that cannot be had is tried for again every second.
// Returns 0, or -1 when there is no thread to be had. Start-up, once.
[[nodiscard]] int StartRemoteControl();

}  // namespace kestrelbridge
