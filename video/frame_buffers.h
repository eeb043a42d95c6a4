// The writer's side of the shared-memory blocks (layout: include/kestrelbridge/frame_block.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace kestrelbridge {

// Created and initialised for the processes that use it: byte 0 is 1, every other byte 0.
inline constexpr char kTranscodingBlockName[] = "kestrelbridge_framebuffer_transcoding";
inline constexpr std::size_t kTranscodingBlockSize = 13'003'624;

// Deletes the picture-size files of an earlier run, then creates or takes over both blocks,
// reserves their memory, maps and initialises them. They outlive the process. Returns 0, or -1
// after a line on standard error when a block cannot be opened, sized, reserved or mapped.
// Start-up, once.
[[nodiscard]] int InitFrameBuffers();

// Writes one whole access unit into the ring; does nothing for an empty unit, or before
// InitFrameBuffers. Nothing is allocated or locked. Camera's receive thread.
void PublishVideoUnit(std::span<const std::uint8_t> unit);

}  // namespace kestrelbridge
