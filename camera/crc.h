// The two check sums of a command frame. Neither is a textbook one: the tables are, the start
// values are the camera's own.
#pragma once

#include <cstdint>
#include <span>

namespace kestrelbridge {

// CRC-8, polynomial 0x31, reflected (0x8C), start value 0x77, no final XOR.
// "123456789" gives 0xFB. Any thread.
std::uint8_t FrameCrc8(std::span<const std::uint8_t> bytes);

// CRC-16, polynomial 0x1021, reflected (0x8408), start value 0x3692, no final XOR; stored low byte
// first. "123456789" gives 0x7109; no bytes at all give 0x3692. Any thread.
std::uint16_t FrameCrc16(std::span<const std::uint8_t> bytes);

}  // namespace kestrelbridge
