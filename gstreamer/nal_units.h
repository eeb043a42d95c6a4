// An access unit of the ring (Annex B), as its NAL units.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace kestrelbridge::gstreamer {

inline constexpr std::uint8_t kNalTypeSlice = 1;
inline constexpr std::uint8_t kNalTypeIdrSlice = 5;
inline constexpr std::uint8_t kNalTypeSps = 7;
inline constexpr std::uint8_t kNalTypePps = 8;

// From the one-byte header on, without start code and without the zero bytes behind it. Never
// empty.
using NalUnit = std::span<const std::uint8_t>;

constexpr std::uint8_t TypeOf(NalUnit nal) { return nal[0] & 0x1F; }
constexpr bool IsSlice(std::uint8_t type) {
  return type >= kNalTypeSlice && type <= kNalTypeIdrSlice;
}

enum class Extent {
  kHead,  // up to the first slice, with it: all that tells what kind of unit it is
  kWhole,
};

// Puts the NAL units into `nals`, replacing what it held. With kHead the last one, a slice, reaches
// to the end of the unit, whatever follows in it. Bytes before the first start code are passed
// over. Pure; the NAL units point into the unit.
void SplitNalUnits(std::span<const std::uint8_t> unit, Extent extent, std::vector<NalUnit>& nals);

}  // namespace kestrelbridge::gstreamer
