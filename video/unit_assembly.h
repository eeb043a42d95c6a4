// Puts the camera's video datagrams together again into whole H.264 access units.
//
// Unit header: the first datagram of a unit, recognised by seven fixed bytes.
//
//   bytes   content                                  A continuation is any other video datagram;
//   20-22   00 00 01                                 its unit bytes start at byte 20.
//   23      FF
//   24-25   unit length, little-endian: bytes of     A unit is known to be whole only when the
//           the unit in this and the following       next header arrives, so every unit is
//           datagrams together                       published one unit late, unless it is wanted
//   26-28   FF 00 4C                                 at once. Its length is its only test.
//   29-31   not read
//   32-     the unit's first bytes
//
//           header                    header: finish the unit in progress, start the next
//   idle ------------> assembling ---+
//    | ^                  |   ^      |
//    +-+ continuation:    +---+------+
//        dropped          continuation: appended
#pragma once

#include <cstdint>
#include <span>

namespace kestrelbridge {

// Whether a unit is published with the datagram that completes its length, instead of with the next
// header. All else stays with that header: the acknowledgement, and the report of a unit that has
// gathered further bytes meanwhile, which is in the ring then. Start-up, before the camera's
// receive thread exists; off without it.
void PublishUnitsWhenWhole(bool when_whole);

// Takes one video datagram of the camera, transport wrapper included. One that is too short for its
// header is dropped, and the unit in progress goes on. Camera's receive thread.
void TakeVideoDatagram(std::span<const std::uint8_t> datagram);

}  // namespace kestrelbridge
