// Cuts an H.264 byte stream (Annex B) into its access units.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace kestrelbridge::tools {

using AccessUnit = std::span<const std::uint8_t>;

// The access units of the stream, in its order: one after the other they are the whole stream, byte
// for byte. What lies before the first start code belongs to the first unit; the zero byte of a
// 4-byte start code belongs to the unit that it opens. A stream without a coded picture has none.
// Pure; the units point into the stream.
std::vector<AccessUnit> SplitAccessUnits(std::span<const std::uint8_t> stream);

}  // namespace kestrelbridge::tools
