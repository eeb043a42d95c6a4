// What the camera sends, told apart: video goes to the unit assembly, command data to the state.
#pragma once

#include <cstdint>
#include <span>

namespace kestrelbridge {

// Takes one datagram of the camera, at most 10,000 bytes: records its sequence, then hands its
// payload on by its kind. Kinds other than video and command data, and datagrams too short for what
// they claim to be, go no further. Always returns 0. Camera's receive thread.
int ProcessCameraDatagram(std::span<const std::uint8_t> datagram);

}  // namespace kestrelbridge
