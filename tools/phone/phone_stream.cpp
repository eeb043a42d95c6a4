#include "tools/phone/phone_stream.h"

#include "base/byte_order.h"
#include "camera/packet_format.h"
#include "tools/wire/unit_header.h"

namespace kestrelbridge::tools {
namespace {

constexpr std::uint16_t kLengthFlag = 0x8000;
constexpr std::uint16_t kHalfOfAllSequences = 0x8000;

bool IsWellFormed(std::span<const std::uint8_t> datagram) {
  return datagram.size() >= kReceivedWrapperSize &&
         LoadLe16(datagram, 0) == (datagram.size() | kLengthFlag) &&
         datagram[kWrapperCheckOffset] == WrapperCheck(datagram);
}

}  // namespace

std::span<const std::uint8_t> PhoneStream::Take(std::span<const std::uint8_t> datagram) {
  ++counters_.datagrams;
  counters_.bytes += datagram.size();
  if (!IsWellFormed(datagram)) {
    ++counters_.bad_datagrams;
    return {};
  }
  NoteSequence(LoadLe16(datagram, kWrapperSequenceOffset));
  switch (datagram[kWrapperKindOffset]) {
    case kKindCommandData:
      ++counters_.command_data;
      return {};
    case kKindVideo:
      ++counters_.video;
      return TakeVideo(datagram);
    default:
      ++counters_.other_kinds;
      return {};
  }
}

void PhoneStream::NoteSequence(std::uint16_t sequence) {
  sequence_ = sequence;
  const auto ahead =
      static_cast<std::uint16_t>(sequence - next_sequence_.value_or(sequence));  // wraps
  if (ahead >= kHalfOfAllSequences) {
    ++counters_.reordered;
    return;
  }
  counters_.gaps += ahead;
  next_sequence_ = static_cast<std::uint16_t>(sequence + 1);
}

// A unit is whole as soon as it has the length that its header announced. What comes between that
// and the next header belongs to a unit whose header was lost; the gap tells of it.
std::span<const std::uint8_t> PhoneStream::TakeVideo(std::span<const std::uint8_t> datagram) {
  const bool opens_unit = datagram.size() >= kUnitHeaderEnd && HasUnitHeader(datagram);
  if (opens_unit) {
    counters_.broken_units += announced_length_ != 0 ? 1 : 0;
    announced_length_ = LoadLe16(datagram, kUnitLengthOffset);
    unit_.clear();
  }
  if (announced_length_ == 0) {
    return {};
  }
  const auto bytes = datagram.subspan(opens_unit ? kUnitHeaderEnd : kReceivedWrapperSize);
  unit_.insert(unit_.end(), bytes.begin(), bytes.end());
  if (unit_.size() < announced_length_) {
    return {};
  }
  const bool whole = unit_.size() == announced_length_;
  announced_length_ = 0;
  ++(whole ? counters_.units : counters_.broken_units);
  return whole ? std::span<const std::uint8_t>(unit_) : std::span<const std::uint8_t>();
}

}  // namespace kestrelbridge::tools
