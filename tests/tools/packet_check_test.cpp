#include "tools/packet_check.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "camera/packet_format.h"

namespace kestrelbridge {
namespace {

using Bytes = std::vector<std::uint8_t>;

struct GoodPacket {
  const char* name;
  PacketType type;
  Bytes bytes;
};

template <typename Packet>
Bytes ToBytes(const Packet& packet, std::size_t length) {
  return {packet.begin(), packet.begin() + static_cast<std::ptrdiff_t>(length)};
}

std::vector<GoodPacket> GoodPackets() {
  std::array<std::uint8_t, 14> frame = {0x55, 0x0E, 0x04, 0x66, 0x02, 0x01, 0x00,
                                        0x00, 0x40, 0x02, 0x02, 0x01, 0x00, 0x00};
  SealCommandFrame(frame, 9);
  return {
      {"connection request", PacketType::kConnectionRequest,
       ToBytes(BuildConnectionRequest(), kConnectionRequestSize)},
      {"keepalive", PacketType::kKeepalive, ToBytes(BuildKeepalive(0x1234, 5), kKeepaliveSize)},
      {"acknowledgement", PacketType::kUnitAcknowledgement,
       ToBytes(BuildUnitAcknowledgement(0x1234), kUnitAcknowledgementSize)},
      {"command", PacketType::kCommand,
       ToBytes(BuildCommandPacket(frame, 3), kSentWrapperSize + frame.size())},
  };
}

TEST(PacketCheck, KnowsThePacketsOfTheDaemon) {
  for (const GoodPacket& packet : GoodPackets()) {
    const CheckedPacket checked = CheckPacket(packet.bytes);
    EXPECT_EQ(checked.type, packet.type)
        << packet.name << ": " << (checked.fault != nullptr ? checked.fault : "");
  }
}

TEST(PacketCheck, OneWrongByteAnywhereMakesAPacketBad) {
  for (const GoodPacket& packet : GoodPackets()) {
    for (std::size_t offset = 0; offset < packet.bytes.size(); ++offset) {
      Bytes damaged = packet.bytes;
      damaged[offset] ^= 0x10;
      const CheckedPacket checked = CheckPacket(damaged);
      EXPECT_EQ(checked.type, PacketType::kBad) << packet.name << ", byte " << offset;
      EXPECT_NE(checked.fault, nullptr);
    }
  }
}

TEST(PacketCheck, PacketThatIsTooShortOrTooLongIsBadEvenWithALengthThatFits) {
  for (const GoodPacket& packet : GoodPackets()) {
    for (std::size_t length = 0; length <= packet.bytes.size() + 1; ++length) {
      Bytes resized = packet.bytes;
      resized.resize(length);
      if (length == packet.bytes.size()) {
        continue;
      }
      if (length > kWrapperCheckOffset) {
        resized[0] = static_cast<std::uint8_t>(length);
        resized[kWrapperCheckOffset] = WrapperCheck(resized);
      }
      EXPECT_EQ(CheckPacket(resized).type, PacketType::kBad) << packet.name << ", " << length;
    }
  }
}

}  // namespace
}  // namespace kestrelbridge
