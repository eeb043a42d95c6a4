// The way of every camera command out of the daemon.
#pragma once

#include <cstdint>
#include <span>

#include "base/counters.h"

namespace kestrelbridge {

// Frames that the calling thread sends from now on count there; at first, as the main
// application's.
void CountCommandFramesIn(OwnedCounter& counter);

// Sends a command frame of 2 to 255 bytes, whose length equals its byte 1, to the camera. Writes
// the frame sequence and the CRC-16 into the caller's buffer; everything else, the CRC-8 included,
// must be in place. Returns the bytes sent, or -1; nobody retries. Any thread, nothing is
// allocated.
int SendCameraFrame(std::span<std::uint8_t> frame);

}  // namespace kestrelbridge
