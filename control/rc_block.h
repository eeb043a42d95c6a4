// The reader's side of the remote-control block (layout: include/kestrelbridge/rc_block.h).
#pragma once

#include <array>
#include <cstdint>
#include <ctime>

#include "kestrelbridge/rc_block.h"

namespace kestrelbridge {

// One daemon has one; the remote-control thread owns it after start-up.
struct RcBlock {
  int descriptor = -1;            // open as long as the block is mapped
  std::uint8_t* bytes = nullptr;  // kRcBlockSize bytes, null while not mapped; ReadRcBlock reads
                                  // through the descriptor all the same (see CopyBlock)

  // How it was last lost. Its zeroes, once it has been opened again, are switches that somebody let
  // go, unless they are ours: we created the block, or filled up what was still cut short, and
  // nobody has written it since.
  enum class Loss { kNone, kCutShort, kRemoved };
  Loss loss = Loss::kNone;
  bool zeroes_are_ours = false;
  std::timespec made_at{};  // the file's time of modification then

  // Something went wrong and has been said. No further trouble is said until the block has been
  // read so many times that it can be called well again; that it was opened is said each time.
  bool in_trouble = false;
  std::uint32_t good_reads = 0;  // since it was last opened
};
inline constexpr std::uint32_t kRcBlockWellAfterReads = 500;  // ten seconds of polling

// What the block held at one moment.
struct RcValues {
  std::array<double, kRcChannelCount> channels{};
  bool slider_enabled = false;
};

// Opens the block, or creates it, gives it its size, reserves its memory and maps it, and says
// which of the two it was and whether every user may write it. Returns false when that fails, after
// it said why. Also opens a block anew.
bool OpenRcBlock(RcBlock& block);

// Reads the block, whatever its owner does to it meanwhile. Returns false when it is not mapped, or
// no longer whole or no longer the one with that name; it is then unmapped. Of a block that was
// lost and that we then made ourselves, `values` stay as they are until somebody writes it, and a
// recording goes on; the zeroes of one that somebody else has made are positions like any other.
bool ReadRcBlock(RcBlock& block, RcValues& values);

}  // namespace kestrelbridge
