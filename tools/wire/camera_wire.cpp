#include "tools/wire/camera_wire.h"

#include <algorithm>
#include <array>

#include "base/byte_order.h"
#include "camera/packet_format.h"
#include "tools/wire/unit_header.h"

namespace kestrelbridge::tools {
namespace {

constexpr std::uint16_t kLengthFlag = 0x8000;
constexpr std::array<std::uint8_t, 4> kWrapperFixed = {0x30, 0x32, 0x00, 0x00};
constexpr std::size_t kWrapperFixedOffset = 2;

void FillWrapper(std::span<std::uint8_t> datagram, std::uint8_t kind, std::uint16_t sequence) {
  std::ranges::fill(datagram.first(kReceivedWrapperSize), std::uint8_t{0});
  StoreLe16(datagram, 0, static_cast<std::uint16_t>(datagram.size() | kLengthFlag));
  std::ranges::copy(kWrapperFixed, datagram.begin() + kWrapperFixedOffset);
  datagram[kWrapperKindOffset] = kind;
  datagram[kWrapperCheckOffset] = WrapperCheck(datagram);
  StoreLe16(datagram, kWrapperSequenceOffset, sequence);
}

}  // namespace

std::size_t UnitDatagramCount(std::size_t unit_length, std::size_t datagram_size) {
  const std::size_t first_room = datagram_size - kUnitHeaderEnd;
  const std::size_t further_room = datagram_size - kReceivedWrapperSize;
  const std::size_t left = unit_length - std::min(unit_length, first_room);
  return 1 + (left + further_room - 1) / further_room;
}

std::span<std::uint8_t> BuildUnitDatagram(std::span<const std::uint8_t> unit, std::size_t position,
                                          std::uint16_t sequence, std::span<std::uint8_t> buffer) {
  const bool first = position == 0;
  const std::size_t bytes_begin = first ? kUnitHeaderEnd : kReceivedWrapperSize;
  const std::size_t first_room = buffer.size() - kUnitHeaderEnd;
  const std::size_t further_room = buffer.size() - kReceivedWrapperSize;
  const auto rest = unit.subspan(first ? 0 : first_room + (position - 1) * further_room);
  const auto bytes = rest.first(std::min(rest.size(), buffer.size() - bytes_begin));
  const auto datagram = buffer.first(bytes_begin + bytes.size());
  FillWrapper(datagram, kKindVideo, sequence);
  if (first) {
    std::ranges::copy(kUnitHeader, datagram.begin() + kReceivedWrapperSize);
    StoreLe16(datagram, kUnitLengthOffset, static_cast<std::uint16_t>(unit.size()));
  }
  std::ranges::copy(bytes, datagram.subspan(bytes_begin).begin());
  return datagram;
}

std::span<std::uint8_t> BuildCommandData(std::span<const std::uint8_t> payload,
                                         std::uint16_t sequence, std::span<std::uint8_t> buffer) {
  const auto datagram = buffer.first(kReceivedWrapperSize + payload.size());
  FillWrapper(datagram, kKindCommandData, sequence);
  std::ranges::copy(payload, datagram.begin() + kReceivedWrapperSize);
  return datagram;
}

}  // namespace kestrelbridge::tools
