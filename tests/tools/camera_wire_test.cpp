#include "tools/camera_wire.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <numeric>
#include <vector>

namespace kestrelbridge {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kWrapperEnd = 20;
constexpr std::size_t kHeaderEnd = 32;

TEST(CameraWire, UnitHeaderDatagramByteByByte) {
  const Bytes unit = {0x00, 0x00, 0x00, 0x01, 0x65};
  Bytes buffer(100, 0xEE);
  const auto datagram = BuildUnitDatagram(unit, 0, 0x1234, buffer);
  const Bytes expected = {
      0x25, 0x80, 0x30, 0x32, 0x00, 0x00, 0x02, 0xA5,  // length 37, fixed, kind 2, XOR
      0x00, 0x00, 0x34, 0x12, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  // sequence
      0x00, 0x00, 0x01, 0xFF, 0x05, 0x00, 0xFF, 0x00, 0x4C, 0x00, 0x00, 0x00,  // unit length 5
      0x00, 0x00, 0x00, 0x01, 0x65,
  };
  EXPECT_EQ(Bytes(datagram.begin(), datagram.end()), expected);
}

TEST(CameraWire, DatagramsOfAUnitCarryItsBytesInOrderAndNoneIsEmptyOrTooLong) {
  for (const std::size_t datagram_size : {std::size_t{33}, std::size_t{100}, std::size_t{1472}}) {
    const std::size_t first = datagram_size - kHeaderEnd;
    const std::size_t further = datagram_size - kWrapperEnd;
    for (const std::size_t length : {std::size_t{1}, first, first + 1, first + further,
                                     first + further + 1, std::size_t{65'535}}) {
      SCOPED_TRACE(testing::Message() << length << " bytes by " << datagram_size);
      Bytes unit(length);
      std::iota(unit.begin(), unit.end(), std::uint8_t{0});
      Bytes buffer(datagram_size);
      Bytes carried;
      for (std::size_t position = 0; position < UnitDatagramCount(length, datagram_size);
           ++position) {
        const auto datagram = BuildUnitDatagram(unit, position, 0, buffer);
        const auto bytes = datagram.subspan(position == 0 ? kHeaderEnd : kWrapperEnd);
        EXPECT_FALSE(bytes.empty());
        EXPECT_LE(datagram.size(), datagram_size);
        carried.insert(carried.end(), bytes.begin(), bytes.end());
      }
      EXPECT_EQ(carried, unit);
    }
  }
}

}  // namespace
}  // namespace kestrelbridge
