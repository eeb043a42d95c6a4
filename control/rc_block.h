// The reader's side of the remote-control block (layout: include/kestrelbridge/rc_block.h).
#pragma once

#include <array>
#include <cstdint>

#include "kestrelbridge/rc_block.h"

namespace kestrelbridge {

// One daemon has one; the remote-control thread owns it after start-up.
struct RcBlock {
  int descriptor = -1;            // open as long as the block is mapped
  std::uint8_t* bytes = nullptr;  // kRcBlockSize bytes, null while not mapped; ReadRcBlock reads
                                  // through the descriptor all the same (see CopyBlock)

  // Cut short or removed, and nobody has written it since.
  bool was_lost = false;

  // Something went wrong and has been said. Nothing more is said about the block until it has been
  // read so many times without trouble that it can be called well again.
  bool in_trouble = false;
  std::uint32_t good_reads = 0;  // since it was last opened
};
inline constexpr std::uint32_t kRcBlockWellAfterReads = 500;  // ten seconds of polling

// What the block held at one moment.
struct RcValues {
  std::array<double, kRcChannelCount> channels{};
  bool slider_enabled = false;
};

// Opens the block, or creates it, gives it its size, reserves its memory and maps it. Returns false
// when that fails, after it said why. Also opens a block anew.
bool OpenRcBlock(RcBlock& block);

// Reads the block, whatever its owner does to it meanwhile. Returns false when it is not mapped, or
// no longer whole or no longer the one with that name; it is then unmapped. After such a loss
// `values` stay as they are until the new block has been written: its zeroes are no switches that
// somebody let go, and a recording goes on.
bool ReadRcBlock(RcBlock& block, RcValues& values);

}  // namespace kestrelbridge
