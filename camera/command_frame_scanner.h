// Finds the command frames in what the camera sends.
#pragma once

#include <cstdint>
#include <span>

namespace kestrelbridge {

// Takes one frame; its bytes are valid until it returns.
using CommandFrameCallback = void (*)(std::span<const std::uint8_t> frame);

// Calls on_frame for every whole frame with right check sums in the batch, in the order in which
// they lie there. Everything else is skipped silently, one byte at a time, so that a frame hidden
// inside a damaged one is still found. Camera's receive thread.
void ScanCommandFrames(std::span<const std::uint8_t> batch, CommandFrameCallback on_frame);

// The frame that opens at the first byte of `bytes`, or an empty span when none does. Any thread.
std::span<const std::uint8_t> CommandFrameAt(std::span<const std::uint8_t> bytes);

}  // namespace kestrelbridge
