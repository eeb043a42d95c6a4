#include "camera/crc.h"

#include <array>
#include <cstddef>

namespace kestrelbridge {
namespace {

constexpr std::uint8_t kCrc8Start = 0x77;
constexpr std::uint8_t kCrc8ReflectedPolynomial = 0x8C;
constexpr std::uint16_t kCrc16Start = 0x3692;
constexpr std::uint16_t kCrc16ReflectedPolynomial = 0x8408;

// Entry b is what eight steps make of the byte b.
template <typename Register>
using Table = std::array<Register, 256>;

template <typename Register>
constexpr Table<Register> MakeReflectedTable(Register polynomial) {
  Table<Register> table{};
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

// Slicing by eight: table k holds what becomes of a byte with k bytes of zeros behind it, so that
// the shares of eight bytes are looked up side by side instead of one after the other. Only for the
// CRC-16: the CRC-8 covers no more than the three bytes of a header.
constexpr std::size_t kSliceBytes = 8;

constexpr std::uint16_t AddByte(std::uint16_t crc, std::uint8_t byte) {
  return static_cast<std::uint16_t>(kCrc16Table[(crc ^ byte) & 0xFF] ^ (crc >> 8));
}

constexpr std::array<Table<std::uint16_t>, kSliceBytes> kCrc16Slices = [] {
  std::array<Table<std::uint16_t>, kSliceBytes> slices{kCrc16Table};
  for (std::size_t k = 1; k < kSliceBytes; ++k) {
    for (std::size_t byte = 0; byte < kCrc16Table.size(); ++byte) {
      slices[k][byte] = AddByte(slices[k - 1][byte], 0);
    }
  }
  return slices;
}();

std::uint16_t AddSlice(std::uint16_t crc, std::span<const std::uint8_t, kSliceBytes> bytes) {
  const auto& slices = kCrc16Slices;
  return slices[7][bytes[0] ^ (crc & 0xFF)] ^ slices[6][bytes[1] ^ (crc >> 8)] ^
         slices[5][bytes[2]] ^ slices[4][bytes[3]] ^ slices[3][bytes[4]] ^ slices[2][bytes[5]] ^
         slices[1][bytes[6]] ^ slices[0][bytes[7]];
}

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
  for (; bytes.size() >= kSliceBytes; bytes = bytes.subspan(kSliceBytes)) {
    crc = AddSlice(crc, bytes.first<kSliceBytes>());
  }
  for (const std::uint8_t byte : bytes) {
    crc = AddByte(crc, byte);
  }
  return crc;
}

}  // namespace kestrelbridge
