#include "camera/packet_format.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <span>
#include <string_view>

#include "base/byte_order.h"
#include "camera/camera_link.h"
#include "camera/command_frame_sender.h"
#include "camera/crc.h"
#include "support/camera_datagrams.h"
#include "support/peer_socket.h"
#include "tools/wire/packet_check.h"

namespace kestrelbridge::test {
namespace {

TEST(Crc, MatchesTheKnownValues) {
  const std::string_view digits = "123456789";
  const Bytes text(digits.begin(), digits.end());
  EXPECT_EQ(FrameCrc8(text), 0xFB);
  EXPECT_EQ(FrameCrc8(Bytes{0x55}), 0x9F);
  EXPECT_EQ(FrameCrc16(text), 0x7109);
  EXPECT_EQ(FrameCrc16({}), 0x3692);
}

// As the polynomials have it, bit by bit.
unsigned PlainCrc(unsigned crc, unsigned reflected_polynomial,
                  std::span<const std::uint8_t> bytes) {
  for (const std::uint8_t byte : bytes) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc & 1) != 0 ? (crc >> 1) ^ reflected_polynomial : crc >> 1;
    }
  }
  return crc;
}

TEST(Crc, IsThatOfThePlainPolynomialAtEveryLengthAndPlace) {
  std::mt19937 random(7);
  Bytes bytes(300);
  std::ranges::generate(bytes, [&] { return static_cast<std::uint8_t>(random()); });
  for (std::size_t first = 0; first < 9; ++first) {
    for (std::size_t length = 0; length <= bytes.size() - first; ++length) {
      const auto part = std::span<const std::uint8_t>(bytes).subspan(first, length);
      ASSERT_EQ(FrameCrc8(part), PlainCrc(0x77, 0x8C, part)) << length << " from " << first;
      ASSERT_EQ(FrameCrc16(part), PlainCrc(0x3692, 0x8408, part)) << length << " from " << first;
    }
  }
}

// Byte for byte, for the check sum's sake: whoever else judges packets takes the daemon's word for
// it.
TEST(PacketFormat, AcknowledgementIsABareWrapper) {
  const auto packet = BuildUnitAcknowledgement(0xBEEF);
  EXPECT_EQ(Bytes(packet.begin(), packet.end()),
            (Bytes{0x22, 0x80, 0x30, 0x32, 0x00, 0x00, 0x04, 0xA4,  //
                   0xEF, 0xBE, 0xEF, 0xBE, 0x00, 0x00, 0x00, 0x00,  //
                   0xEF, 0xBE, 0xEF, 0xBE, 0x00, 0x00, 0x00, 0x00,  //
                   0x80, 0x91, 0x80, 0x91, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}));
}

// A camera that has sent the sequence 3, and a command of 14 bytes whose sequence and CRC-16 the
// caller left as rubbish.
TEST(FrameSender, StampsWrapsAndCountsEveryCommand) {
  PeerSocket camera;
  BeCameraAt(camera);
  CameraLink& link = GetCameraLink();
  link.port += 0x10000;  // packets go to the low 16 bits
  link.last_received_sequence = 3;
  link.outgoing_packet_counter = 0xFFFF;

  Bytes frame = {0x55, 0x0E, 0x04, 0x66, 0x02, 0x01, 0xAA,
                 0xAA, 0x40, 0x02, 0x02, 0x01, 0xAA, 0xAA};
  EXPECT_EQ(SendCameraFrame(frame), 48);
  const Bytes first = camera.Receive()->bytes;
  const tools::CheckedPacket checked = tools::CheckPacket(first);
  ASSERT_EQ(checked.type, tools::PacketType::kCommand) << checked.fault;
  EXPECT_EQ(LoadLe16(first, kWrapperSequenceOffset), 3);
  EXPECT_TRUE(std::ranges::equal(checked.frame, frame)) << "sealed in the caller's buffer";
  EXPECT_EQ(LoadLe16(frame, 6), 0xFFFF);
  EXPECT_EQ(frame[11], 0x01);

  SendCameraFrame(frame);
  EXPECT_EQ(LoadLe16(frame, 6), 0) << "the counter wraps";
  EXPECT_EQ(link.outgoing_packet_counter, 1);

  Bytes shortest = {0x55, 0x02};
  EXPECT_EQ(SendCameraFrame(shortest), 36);
  EXPECT_EQ(shortest, (Bytes{0x92, 0x36})) << "no bytes covered: the CRC's start value";
}

}  // namespace
}  // namespace kestrelbridge::test
