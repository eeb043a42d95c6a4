// The unit header, which opens the first datagram of a unit. Its bytes, from the datagram's begin:
//
//   0-19    transport wrapper
//   20-23   00 00 01 FF
//   24-25   unit length, little-endian
//   26-28   FF 00 4C
//   29-31   0 as the camera sends it, ignored by whoever receives it
//   32-     the unit's first bytes; further datagrams of the unit carry its bytes from byte 20
//
// Not taken from the daemon: a check against the code that is checked would find nothing.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace kestrelbridge::tools {

inline constexpr std::array<std::uint8_t, 12> kUnitHeader = {0x00, 0x00, 0x01, 0xFF, 0x00, 0x00,
                                                             0xFF, 0x00, 0x4C, 0x00, 0x00, 0x00};
inline constexpr std::size_t kUnitHeaderOffset = 20;
inline constexpr std::size_t kUnitLengthOffset = 24;
inline constexpr std::size_t kUnitMarkOffset = 26;  // of the fixed bytes behind the length
inline constexpr std::size_t kUnitMarkEnd = 29;
inline constexpr std::size_t kUnitHeaderEnd = kUnitHeaderOffset + kUnitHeader.size();

// Whether the datagram has the fixed bytes. It may still be cut short behind the last of them.
[[nodiscard]] constexpr bool HasUnitHeader(std::span<const std::uint8_t> datagram) {
  const auto is_fixed = [&](std::size_t begin, std::size_t end) {
    return std::ranges::equal(
        datagram.subspan(begin, end - begin),
        std::span(kUnitHeader).subspan(begin - kUnitHeaderOffset, end - begin));
  };
  return datagram.size() >= kUnitMarkEnd && is_fixed(kUnitHeaderOffset, kUnitLengthOffset) &&
         is_fixed(kUnitMarkOffset, kUnitMarkEnd);
}

}  // namespace kestrelbridge::tools
