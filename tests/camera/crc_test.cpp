#include "camera/crc.h"

#include <gtest/gtest.h>

#include <string_view>
#include <vector>

namespace kestrelbridge {
namespace {

std::span<const std::uint8_t> Bytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

TEST(Crc, MatchesTheKnownValues) {
  EXPECT_EQ(FrameCrc8(Bytes("123456789")), 0xFB);
  EXPECT_EQ(FrameCrc8(Bytes("\x55")), 0x9F);
  EXPECT_EQ(FrameCrc16(Bytes("123456789")), 0x7109);
  EXPECT_EQ(FrameCrc16({}), 0x3692);
  EXPECT_EQ(FrameCrc16(std::vector<std::uint8_t>{0x55, 0x0F, 0x04, 0xA2, 0x02, 0x01, 0x06, 0x82,
                                                 0x00, 0x00, 0x00, 0x01, 0x00}),
            0x529D);
}

}  // namespace
}  // namespace kestrelbridge
