// The simulated camera's record of what it sent, for tests that must know what to expect.
//
// A text file. Lines that open with '#' are comments; every other line is one unit, in the order of
// sending, with these columns, a blank between them:
//
//   unit         number in the whole stream, from 0; goes on when the clip starts again
//   clip_unit    number in the clip, from 0
//   length       bytes of the unit
//   datagrams    number of datagrams that carry it
//   lost         positions among these datagrams, from 0, with commas between them, or "-"
//   duplicated   likewise: sent twice in a row
//   reordered    likewise: sent after the next datagram, which may be the next unit's first
//   corrupted    likewise, each as position@offset: the byte of the datagram, wrapper included,
//                that is wrong
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>

#include "tools/camera/datagram_faults.h"

namespace kestrelbridge::tools {

struct SentUnit {
  std::uint64_t unit = 0;
  std::size_t clip_unit = 0;
  std::size_t length = 0;
  std::span<const DatagramFate> fates;  // one for each datagram
};

class CameraJournal {
 public:
  // Opens the file; an empty path makes a journal that writes nothing. Throws ToolError.
  explicit CameraJournal(const std::string& path);

  void Write(const SentUnit& sent);

 private:
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file_;
};

}  // namespace kestrelbridge::tools
