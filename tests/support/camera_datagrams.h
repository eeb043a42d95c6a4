// The camera's side of the wire, for scripted tests: every byte is the test's choice.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "support/peer_socket.h"

namespace kestrelbridge::test {

using Bytes = std::vector<std::uint8_t>;

// From now on what the daemon's pieces in this process send to the camera arrives at this socket,
// numbered from 0.
void BeCameraAt(const PeerSocket& camera);

// A datagram of the camera: 20-byte transport wrapper and payload. Kinds: camera/packet_format.h.
Bytes CameraDatagram(std::uint8_t kind, std::uint16_t sequence,
                     std::span<const std::uint8_t> payload);

// Carries command data: whole command frames, or pieces of them.
Bytes CommandDataDatagram(std::uint16_t sequence, std::span<const std::uint8_t> payload);

// The first datagram of a video unit. unit_length is what it announces, true or not.
Bytes UnitHeaderDatagram(std::uint16_t sequence, std::uint16_t unit_length,
                         std::span<const std::uint8_t> first_bytes);

// A further datagram of a video unit.
Bytes ContinuationDatagram(std::uint16_t sequence, std::span<const std::uint8_t> unit_bytes);

// All datagrams of one unit, at most datagram_size bytes each, numbered from first_sequence.
std::vector<Bytes> UnitDatagrams(std::uint16_t first_sequence, std::span<const std::uint8_t> unit,
                                 std::size_t datagram_size = 1472);

// A unit of `size` bytes (at least 5) that opens like a picture; its other bytes come from the seed
// and tell one unit from another.
Bytes MakeUnit(std::size_t size, std::uint32_t seed);

// A sealed command frame, as in the camera's status pushes. At most 242 payload bytes. In a block
// of exactly its size, so that AddressSanitizer sees a read past it.
Bytes CommandFrame(std::uint8_t command_set, std::uint8_t command_id,
                   std::span<const std::uint8_t> payload, std::uint16_t frame_sequence = 0);

// Command data that does nothing, long enough (more than 500 bytes) to be scanned at once.
Bytes EmptyCommandData();

}  // namespace kestrelbridge::test
