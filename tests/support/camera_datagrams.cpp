#include "support/camera_datagrams.h"

#include <algorithm>
#include <cstdio>
#include <random>
#include <stdexcept>

#include "base/byte_order.h"
#include "camera/camera_link.h"
#include "camera/crc.h"
#include "camera/packet_format.h"
#include "tools/wire/unit_header.h"

namespace kestrelbridge::test {
namespace {

constexpr std::uint8_t kNonIdrPicture = 0x41;

}  // namespace

void BeCameraAt(const PeerSocket& camera) {
  CameraLink& link = GetCameraLink();
  if (Open(link.endpoint, 0) != 0) {
    throw std::runtime_error("the camera's endpoint cannot be opened");
  }
  std::snprintf(link.host, sizeof link.host, "127.0.0.1");
  link.port = camera.port();
  link.outgoing_packet_counter = 0;
}

Bytes CameraDatagram(std::uint8_t kind, std::uint16_t sequence,
                     std::span<const std::uint8_t> payload) {
  Bytes datagram = {0, 0, 0x30, 0x32, 0, 0, kind};
  datagram.resize(kReceivedWrapperSize);
  datagram.insert(datagram.end(), payload.begin(), payload.end());
  StoreLe16(datagram, 0, static_cast<std::uint16_t>(datagram.size() | 0x8000));
  datagram[kWrapperCheckOffset] = WrapperCheck(datagram);
  StoreLe16(datagram, kWrapperSequenceOffset, sequence);
  return datagram;
}

Bytes CommandDataDatagram(std::uint16_t sequence, std::span<const std::uint8_t> payload) {
  return CameraDatagram(kKindCommandData, sequence, payload);
}

Bytes UnitHeaderDatagram(std::uint16_t sequence, std::uint16_t unit_length,
                         std::span<const std::uint8_t> first_bytes) {
  Bytes payload(tools::kUnitHeader.begin(), tools::kUnitHeader.end());
  StoreLe16(payload, tools::kUnitLengthOffset - tools::kUnitHeaderOffset, unit_length);
  payload.insert(payload.end(), first_bytes.begin(), first_bytes.end());
  return CameraDatagram(kKindVideo, sequence, payload);
}

Bytes ContinuationDatagram(std::uint16_t sequence, std::span<const std::uint8_t> unit_bytes) {
  return CameraDatagram(kKindVideo, sequence, unit_bytes);
}

std::vector<Bytes> UnitDatagrams(std::uint16_t first_sequence, std::span<const std::uint8_t> unit,
                                 std::size_t datagram_size) {
  const std::size_t room = datagram_size - kReceivedWrapperSize;
  const std::size_t first = std::min(unit.size(), room - tools::kUnitHeader.size());
  std::uint16_t sequence = first_sequence;
  std::vector<Bytes> datagrams = {
      UnitHeaderDatagram(sequence, static_cast<std::uint16_t>(unit.size()), unit.first(first))};
  for (auto rest = unit.subspan(first); !rest.empty();) {
    const std::size_t taken = std::min(rest.size(), room);
    datagrams.push_back(ContinuationDatagram(++sequence, rest.first(taken)));
    rest = rest.subspan(taken);
  }
  return datagrams;
}

Bytes MakeUnit(std::size_t size, std::uint32_t seed) {
  Bytes unit(size);
  std::mt19937 random(seed);
  // Never 0: no start code, and no unit header, comes about inside the unit.
  std::ranges::generate(unit, [&] { return static_cast<std::uint8_t>(random() % 255 + 1); });
  std::ranges::copy(Bytes{0, 0, 0, 1, kNonIdrPicture}, unit.begin());
  return unit;
}

Bytes CommandFrame(std::uint8_t command_set, std::uint8_t command_id,
                   std::span<const std::uint8_t> payload, std::uint16_t frame_sequence) {
  Bytes frame = {kFrameStart, 0, kFrameFormat, 0, 0x01, 0x02, 0, 0, 0, command_set, command_id};
  frame.insert(frame.end(), payload.begin(), payload.end());
  frame.resize(frame.size() + kFrameCrc16Size);
  frame[kFrameLengthOffset] = static_cast<std::uint8_t>(frame.size());
  frame[kFrameCrc8Offset] = FrameCrc8(std::span(frame).first(kFrameCrc8Offset));
  SealCommandFrame(frame, frame_sequence);
  frame.shrink_to_fit();
  return frame;
}

Bytes EmptyCommandData() { return Bytes(501); }

}  // namespace kestrelbridge::test
