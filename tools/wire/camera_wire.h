// The camera's side of the wire: the datagrams that a camera sends. Pure functions.
//
//   bytes   field of the transport wrapper
//   0-1     datagram length, bit 15 set
//   2-5     30 32 00 00
//   6       kind
//   7       XOR of bytes 0-6
//   8-9     0
//   10-11   sequence, one up a datagram
//   12-19   0
//   20-     payload: command data or bytes of a unit (tools/wire/unit_header.h)
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace kestrelbridge::tools {

inline constexpr std::size_t kMinDatagramSize = 33;  // wrapper, unit header, one unit byte
inline constexpr std::size_t kMaxDatagramSize = 9000;
inline constexpr std::size_t kUsualDatagramSize = 1472;

// Number of datagrams of at most datagram_size bytes that carry a unit.
[[nodiscard]] std::size_t UnitDatagramCount(std::size_t unit_length, std::size_t datagram_size);

// Builds the unit's datagram of this position in the buffer, whose size is the datagram size.
// Returns the part of the buffer that it fills. Precondition: position < UnitDatagramCount.
[[nodiscard]] std::span<std::uint8_t> BuildUnitDatagram(std::span<const std::uint8_t> unit,
                                                        std::size_t position,
                                                        std::uint16_t sequence,
                                                        std::span<std::uint8_t> buffer);

// Builds a datagram of command data. Returns the part of the buffer that it fills. Precondition:
// wrapper and payload fit in.
[[nodiscard]] std::span<std::uint8_t> BuildCommandData(std::span<const std::uint8_t> payload,
                                                       std::uint16_t sequence,
                                                       std::span<std::uint8_t> buffer);

}  // namespace kestrelbridge::tools
