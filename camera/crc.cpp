#include "camera/crc.h"

#include <array>
#include <cstddef>

namespace kestrelbridge {
namespace {

constexpr std::uint8_t kCrc8Start = 0x77;
constexpr std::uint8_t kCrc8ReflectedPolynomial = 0x8C;
constexpr std::uint16_t kCrc16Start = 0x3692;
constexpr std::uint16_t kCrc16ReflectedPolynomial = 0x8408;

// Table of a reflected CRC: entry b is what eight steps make of the byte b.
template <typename Register>
constexpr std::array<Register, 256> MakeReflectedTable(Register polynomial) {
  std::array<Register, 256> table{};
  for (std::size_t byte = 0; byte < table.size(); ++byte) {
    auto value = static_cast<Register>(byte);
    for (int bit = 0; bit < 8; ++bit) {
      value = static_cast<Register>((value & 1) != 0 ? (value >> 1) ^ polynomial : value >> 1);
    }
    table[byte] = value;
  }
  return table;
}

constexpr auto kCrc8Table = MakeReflectedTable<std::uint8_t>(kCrc8ReflectedPolynomial);
constexpr auto kCrc16Table = MakeReflectedTable<std::uint16_t>(kCrc16ReflectedPolynomial);

}  // namespace

std::uint8_t FrameCrc8(std::span<const std::uint8_t> bytes) {
  std::uint8_t crc = kCrc8Start;
  for (const std::uint8_t byte : bytes) {
    crc = kCrc8Table[crc ^ byte];
  }
  return crc;
}

std::uint16_t FrameCrc16(std::span<const std::uint8_t> bytes) {
  std::uint16_t crc = kCrc16Start;
  for (const std::uint8_t byte : bytes) {
    crc = static_cast<std::uint16_t>(kCrc16Table[(crc ^ byte) & 0xFF] ^ (crc >> 8));
  }
  return crc;
}

}  // namespace kestrelbridge
