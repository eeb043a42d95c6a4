#include "tools/wire/packet_check.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "base/byte_order.h"
#include "camera/crc.h"
#include "camera/packet_format.h"

// The expected bytes are written down here once more, instead of being taken from the daemon's
// packet builder: a check against the code that is checked would find nothing.

namespace kestrelbridge::tools {
namespace {

constexpr std::size_t kMinPacketSize = 8;
constexpr std::uint16_t kLengthFlag = 0x8000;

constexpr std::array<std::uint8_t, 48> kConnectionRequestExpected = {
    0x30, 0x80, 0x30, 0x32, 0x00, 0x00, 0x00, 0xB2,  //
    0x80, 0x91, 0x64, 0x00, 0x64, 0x00, 0xC0, 0x05,  //
    0x14, 0x00, 0x00, 0x0A, 0x00, 0x00, 0x01, 0x90,  //
    0x01, 0xC0, 0x05, 0x14, 0x00, 0x00, 0x64, 0x00,  //
    0x14, 0x00, 0x64, 0x00, 0xC0, 0x05, 0x14, 0x00,  //
    0x00, 0x64, 0x00, 0x01, 0x01, 0x04, 0x0A, 0x02,
};

// Runs of bytes that never change, by their place in the packet.
struct FixedBytes {
  std::size_t offset;
  std::array<std::uint8_t, 4> bytes;
  const char* fault;
};

constexpr FixedBytes kWrapperFixed = {2, {0x30, 0x32, 0x00, 0x00}, "bytes 2-5 are not 30 32 00 00"};

constexpr std::array<FixedBytes, 5> kFramePacketFixed = {{
    {12, {0x00, 0x00, 0x00, 0x00}, "bytes 12-15 are not 0"},
    {16, {0x80, 0x91, 0x80, 0x91}, "bytes 16-19 are not 80 91 80 91"},
    {20, {0x00, 0x00, 0x00, 0x00}, "bytes 20-23 are not 0"},
    {24, {0xE8, 0x91, 0xE8, 0x91}, "bytes 24-27 are not E8 91 E8 91"},
    {28, {0x00, 0x00, 0x00, 0x00}, "bytes 28-31 are not 0"},
}};

constexpr std::array<FixedBytes, 5> kAcknowledgementFixed = {{
    {12, {0x00, 0x00, 0x00, 0x00}, "acknowledgement: bytes 12-15 are not 0"},
    {20, {0x00, 0x00, 0x00, 0x00}, "acknowledgement: bytes 20-23 are not 0"},
    {24, {0x80, 0x91, 0x80, 0x91}, "acknowledgement: bytes 24-27 are not 80 91 80 91"},
    {28, {0x00, 0x00, 0x00, 0x00}, "acknowledgement: bytes 28-31 are not 0"},
    {30, {0x00, 0x00, 0x00, 0x00}, "acknowledgement: bytes 30-33 are not 0"},
}};
constexpr std::array<std::size_t, 3> kAcknowledgementEchoes = {8, 16, 18};  // of bytes 10-11

constexpr std::uint16_t kCommandEchoDistance = 8;

constexpr std::array<std::uint8_t, 6> kKeepaliveFrameStart = {0x55, 0x0F, 0x04, 0xA2, 0x02, 0x01};
constexpr std::array<std::uint8_t, 5> kKeepaliveFrameEnd = {0x00, 0x00, 0x00, 0x01, 0x00};
constexpr std::size_t kKeepaliveFrameEndOffset = 8;

CheckedPacket Bad(const char* fault) { return {.fault = fault}; }

bool Holds(std::span<const std::uint8_t> bytes, std::size_t offset,
           std::span<const std::uint8_t> expected) {
  return std::ranges::equal(bytes.subspan(offset, expected.size()), expected);
}

// The first run that differs, or nothing.
const char* FindFault(std::span<const std::uint8_t> packet, std::span<const FixedBytes> runs) {
  const auto differs = [&](const FixedBytes& run) { return !Holds(packet, run.offset, run.bytes); };
  const auto wrong = std::ranges::find_if(runs, differs);
  return wrong == runs.end() ? nullptr : wrong->fault;
}

const char* WrapperFault(std::span<const std::uint8_t> packet) {
  if (packet.size() < kMinPacketSize) {
    return "shorter than the start of the wrapper";
  }
  if (LoadLe16(packet, 0) != (packet.size() | kLengthFlag)) {
    return "bytes 0-1 are not the packet length with bit 15 set";
  }
  if (!Holds(packet, kWrapperFixed.offset, kWrapperFixed.bytes)) {
    return kWrapperFixed.fault;
  }
  if (WrapperCheck(packet) != packet[kWrapperCheckOffset]) {
    return "wrong wrapper check";
  }
  return nullptr;
}

CheckedPacket CheckConnectionRequest(std::span<const std::uint8_t> packet) {
  if (!std::ranges::equal(packet, kConnectionRequestExpected)) {
    return Bad("kind 0 with other bytes than the connection request's");
  }
  return {.type = PacketType::kConnectionRequest};
}

CheckedPacket CheckAcknowledgement(std::span<const std::uint8_t> packet) {
  if (const char* const fault = FindFault(packet, kAcknowledgementFixed)) {
    return Bad(fault);
  }
  const std::uint16_t sequence = LoadLe16(packet, kWrapperSequenceOffset);
  for (const std::size_t offset : kAcknowledgementEchoes) {
    if (LoadLe16(packet, offset) != sequence) {
      return Bad("acknowledgement: its four sequences differ");
    }
  }
  return {.type = PacketType::kUnitAcknowledgement};
}

const char* FrameFault(std::span<const std::uint8_t> frame) {
  if (frame.size() < kFrameOverhead || frame[kFrameLengthOffset] != frame.size()) {
    return "wrong frame length";
  }
  if (frame[0] != kFrameStart || frame[kFrameFormatOffset] != kFrameFormat) {
    return "frame does not open with 55, length, 04";
  }
  if (FrameCrc8(frame.first(kFrameCrc8Offset)) != frame[kFrameCrc8Offset]) {
    return "wrong frame CRC-8";
  }
  const std::size_t covered = frame.size() - kFrameCrc16Size;
  if (FrameCrc16(frame.first(covered)) != LoadLe16(frame, covered)) {
    return "wrong frame CRC-16";
  }
  return nullptr;
}

bool IsKeepaliveFrame(std::span<const std::uint8_t> frame) {
  return frame.size() == kKeepaliveFrameSize && Holds(frame, 0, kKeepaliveFrameStart) &&
         Holds(frame, kKeepaliveFrameEndOffset, kKeepaliveFrameEnd);
}

CheckedPacket CheckFramePacket(std::span<const std::uint8_t> packet) {
  if (const char* const fault = FindFault(packet, kFramePacketFixed)) {
    return Bad(fault);
  }
  const auto frame = packet.subspan(kSentWrapperSize);
  if (LoadLe16(packet, kWrapperFrameLengthOffset) != frame.size()) {
    return Bad("bytes 32-33 are not the frame length");
  }
  if (const char* const fault = FrameFault(frame)) {
    return Bad(fault);
  }
  const bool keepalive = IsKeepaliveFrame(frame);
  const std::uint16_t distance = keepalive ? 0 : kCommandEchoDistance;
  const auto echo = static_cast<std::uint16_t>(LoadLe16(packet, kWrapperSequenceOffset) - distance);
  if (LoadLe16(packet, kWrapperEchoAOffset) != echo) {
    return Bad(keepalive ? "keepalive: bytes 8-9 are not bytes 10-11"
                         : "command: bytes 8-9 are not bytes 10-11 less 8");
  }
  return {.type = keepalive ? PacketType::kKeepalive : PacketType::kCommand, .frame = frame};
}

}  // namespace

CheckedPacket CheckPacket(std::span<const std::uint8_t> packet) {
  if (const char* const fault = WrapperFault(packet)) {
    return Bad(fault);
  }
  switch (packet[kWrapperKindOffset]) {
    case kKindConnectionRequest:
      return CheckConnectionRequest(packet);
    case kKindCommand:
      if (packet.size() < kSentWrapperSize) {
        return Bad("kind 4, but shorter than its wrapper");
      }
      return packet.size() == kSentWrapperSize ? CheckAcknowledgement(packet)
                                               : CheckFramePacket(packet);
    default:
      return Bad("a kind that no app sends");
  }
}

}  // namespace kestrelbridge::tools
