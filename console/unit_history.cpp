#include "console/unit_history.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "base/byte_order.h"

namespace kestrelbridge::console {
namespace {

constexpr std::size_t kStartCodeSize = 4;
constexpr std::uint8_t kNalTypeMask = 0x1F;
constexpr std::uint8_t kNalTypeSps = 7;
constexpr std::uint8_t kNalTypeDelimiter = 9;
constexpr std::size_t kLongestDelimiter = 8;  // bytes of one, with the start code behind it

// A delimiter may stand before the parameter set.
bool OpensWithParameterSet(std::span<const std::uint8_t> unit) {
  if (unit.size() <= kStartCodeSize) {
    return false;
  }
  const unsigned type = unit[kStartCodeSize] & kNalTypeMask;
  if (type != kNalTypeDelimiter) {
    return type == kNalTypeSps;
  }
  const auto rest = unit.subspan(kStartCodeSize + 1);
  const std::size_t end = std::min(rest.size(), kLongestDelimiter);
  for (std::size_t at = 0; at + 3 < end; ++at) {
    if (rest[at] == 0 && rest[at + 1] == 0 && rest[at + 2] == 1) {
      return (rest[at + 3] & kNalTypeMask) == kNalTypeSps;
    }
  }
  return false;
}

}  // namespace

Unit MakeUnit(std::span<const std::uint8_t> unit, std::uint64_t arrival_us, bool follows_gap) {
  auto message = std::make_shared<Message>(kUnitHeaderSize + unit.size());
  const auto content = message->content();
  StoreLe32(content, 0, static_cast<std::uint32_t>(arrival_us));
  StoreLe32(content, 4, static_cast<std::uint32_t>(arrival_us >> 32));
  StoreLe32(content, kUnitLengthOffset, static_cast<std::uint32_t>(unit.size()));
  std::ranges::copy(unit, content.begin() + kUnitHeaderSize);
  return {.message = std::move(message),
          .arrival_us = arrival_us,
          .is_keyframe = OpensWithParameterSet(unit),
          .follows_gap = follows_gap};
}

std::span<const std::uint8_t> PayloadOf(const Unit& unit) {
  return unit.message->content().subspan(kUnitHeaderSize);
}

void UnitHistory::Add(Unit unit) {
  bytes_ += unit.message->size();
  if (unit.is_keyframe) {
    keyframe_ = End();
  }
  units_.push_back(std::move(unit));
  while (units_.size() > kMostUnits || (bytes_ > kMostBytes && units_.size() > 1)) {
    bytes_ -= units_.front().message->size();
    units_.pop_front();
    ++first_;
  }
  if (keyframe_ && *keyframe_ < first_) {
    keyframe_.reset();
  }
}

const Unit* UnitHistory::Take(Place& place, std::uint64_t now_us) {
  if (!place.next) {
    place.next = keyframe_;
  }
  if (!place.next || *place.next == End()) {
    return nullptr;
  }
  const bool is_gone = *place.next < first_;
  const bool is_late = is_gone || now_us > At(*place.next).arrival_us + kLongestDelayUs;
  if (is_gone && !keyframe_) {
    place.lost = true;
    place.next.reset();
    return nullptr;
  }
  if (is_late && keyframe_ && *keyframe_ > *place.next) {
    place.skipped += *keyframe_ - *place.next;
    place.next = keyframe_;
    place.lost = true;
  }
  const Unit& unit = At(*place.next);
  unit.message->content()[kUnitFlagsOffset] =
      static_cast<std::uint8_t>((unit.is_keyframe ? kKeyframeFlag : 0) |
                                (unit.follows_gap || place.lost ? kDiscontinuityFlag : 0));
  place.lost = false;
  ++*place.next;
  return &unit;
}

bool UnitHistory::HasUnitFor(const Place& place) const {
  return place.next ? *place.next != End() : keyframe_.has_value();
}

const Unit* UnitHistory::LastKeyframe() const { return keyframe_ ? &At(*keyframe_) : nullptr; }

}  // namespace kestrelbridge::console
