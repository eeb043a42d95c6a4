#include "camera/packet_format.h"

#include <algorithm>

#include "base/byte_order.h"
#include "camera/crc.h"

namespace kestrelbridge {
namespace {

constexpr std::uint16_t kPacketLengthFlag = 0x8000;
// A command packet's first echo is the camera's latest sequence less 8; keepalive and
// acknowledgement echo it as it is. The camera expects the difference.
constexpr std::uint16_t kCommandEchoDistance = 8;

// Constant in every packet, at places that depend on the packet; what they mean is not known.
constexpr std::array<std::uint8_t, 4> kMarkA = {0x80, 0x91, 0x80, 0x91};
constexpr std::array<std::uint8_t, 4> kMarkB = {0xE8, 0x91, 0xE8, 0x91};
constexpr std::size_t kFirstMarkOffset = 16;
constexpr std::size_t kSecondMarkOffset = 24;

constexpr ConnectionRequest kConnectionRequestBytes = {
    0x30, 0x80, 0x30, 0x32, 0x00, 0x00, 0x00, 0xB2,  //
    0x80, 0x91, 0x64, 0x00, 0x64, 0x00, 0xC0, 0x05,  //
    0x14, 0x00, 0x00, 0x0A, 0x00, 0x00, 0x01, 0x90,  //
    0x01, 0xC0, 0x05, 0x14, 0x00, 0x00, 0x64, 0x00,  //
    0x14, 0x00, 0x64, 0x00, 0xC0, 0x05, 0x14, 0x00,  //
    0x00, 0x64, 0x00, 0x01, 0x01, 0x04, 0x0A, 0x02,
};

constexpr std::array<std::uint8_t, kKeepaliveFrameSize> kKeepaliveFrame = {
    0x55, 0x0F, 0x04, 0xA2,  // start, length, format, CRC-8
    0x02, 0x01, 0x00, 0x00,  // sender, receiver, sequence
    0x00, 0x00, 0x00,        // flags, command set, command id
    0x01, 0x00, 0x00, 0x00,  // payload, CRC-16
};

void FillWrapperStart(std::span<std::uint8_t> packet, std::size_t packet_length) {
  StoreLe16(packet, 0, static_cast<std::uint16_t>(packet_length ^ kPacketLengthFlag));
  packet[2] = 0x30;
  packet[3] = 0x32;
  packet[4] = 0x00;
  packet[5] = 0x00;
  packet[kWrapperKindOffset] = kKindCommand;
  packet[kWrapperCheckOffset] = WrapperCheck(packet);
}

// Wrapper, marks and frame of the two packets that carry a command frame.
void FillFramePacket(std::span<std::uint8_t> packet, std::span<const std::uint8_t> frame,
                     std::uint16_t echo_a, std::uint16_t last_received) {
  FillWrapperStart(packet, kSentWrapperSize + frame.size());
  StoreLe16(packet, kWrapperEchoAOffset, echo_a);
  StoreLe16(packet, kWrapperSequenceOffset, last_received);
  std::ranges::copy(kMarkA, packet.begin() + kFirstMarkOffset);
  std::ranges::copy(kMarkB, packet.begin() + kSecondMarkOffset);
  StoreLe16(packet, kWrapperFrameLengthOffset, frame[kFrameLengthOffset]);
  std::ranges::copy(frame, packet.begin() + kSentWrapperSize);
}

}  // namespace

std::uint8_t WrapperCheck(std::span<const std::uint8_t> packet) {
  std::uint8_t check = 0;
  for (const std::uint8_t byte : packet.first(kWrapperCheckOffset)) {
    check ^= byte;
  }
  return check;
}

void SealCommandFrame(std::span<std::uint8_t> frame, std::uint16_t frame_sequence) {
  if (frame.size() >= kFrameSequenceOffset + 2) {
    StoreLe16(frame, kFrameSequenceOffset, frame_sequence);
  }
  const std::size_t covered = frame.size() - kFrameCrc16Size;
  StoreLe16(frame, covered, FrameCrc16(frame.first(covered)));
}

ConnectionRequest BuildConnectionRequest() {
  ConnectionRequest packet = kConnectionRequestBytes;
  packet[kWrapperCheckOffset] = WrapperCheck(packet);
  return packet;
}

Keepalive BuildKeepalive(std::uint16_t last_received, std::uint16_t frame_sequence) {
  auto frame = kKeepaliveFrame;
  SealCommandFrame(frame, frame_sequence);
  Keepalive packet{};
  FillFramePacket(packet, frame, last_received, last_received);
  return packet;
}

UnitAcknowledgement BuildUnitAcknowledgement(std::uint16_t last_received) {
  UnitAcknowledgement packet{};
  FillWrapperStart(packet, packet.size());
  StoreLe16(packet, kWrapperEchoAOffset, last_received);
  StoreLe16(packet, kWrapperSequenceOffset, last_received);
  StoreLe16(packet, kFirstMarkOffset, last_received);
  StoreLe16(packet, kFirstMarkOffset + 2, last_received);
  std::ranges::copy(kMarkA, packet.begin() + kSecondMarkOffset);
  return packet;
}

CommandPacket BuildCommandPacket(std::span<const std::uint8_t> frame, std::uint16_t last_received) {
  CommandPacket packet{};
  const auto echo_a = static_cast<std::uint16_t>(last_received - kCommandEchoDistance);
  FillFramePacket(packet, frame, echo_a, last_received);
  return packet;
}

}  // namespace kestrelbridge
