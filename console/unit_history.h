// The latest access units, and how each viewer walks through them: from the last keyframe to the
// newest unit, and on to the newest keyframe when he has fallen behind. Nobody waits for anybody.
//
// Pure; time is passed in. One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>

#include "console/message.h"

namespace kestrelbridge::console {

// A message of /video. Numbers are little-endian.
//
//   bytes   field
//   0-7     time of arrival, microseconds of the monotonic clock
//   8-11    length of the access unit
//   12      flags
//   13-15   0
//   16-     the access unit, Annex B
inline constexpr std::size_t kUnitHeaderSize = 16;
inline constexpr std::size_t kUnitLengthOffset = 8;
inline constexpr std::size_t kUnitFlagsOffset = 12;
inline constexpr std::uint8_t kKeyframeFlag = 1;       // opens with a parameter set
inline constexpr std::uint8_t kDiscontinuityFlag = 2;  // units before it were lost or skipped

struct Unit {
  SharedMessage message;
  std::uint64_t arrival_us = 0;
  bool is_keyframe = false;
  bool follows_gap = false;  // units before it were lost for everybody
};

// The unit as it is sent. `unit` is one access unit of the ring, opened by 00 00 00 01.
Unit MakeUnit(std::span<const std::uint8_t> unit, std::uint64_t arrival_us, bool follows_gap);

// The access unit in it.
std::span<const std::uint8_t> PayloadOf(const Unit& unit);

class UnitHistory {
 public:
  static constexpr std::size_t kMostUnits = 200;         // as many as the ring has
  static constexpr std::size_t kMostBytes = 16'000'000;  // of units that are all large
  // A viewer who is to get an older unit than that gets the newest keyframe instead.
  static constexpr std::uint64_t kLongestDelayUs = 500'000;

  // A viewer's place. Begins before the first keyframe.
  struct Place {
    std::optional<std::uint64_t> next;  // number of the unit that he gets next; none: a keyframe
    bool lost = false;                  // units before that one
    std::uint64_t skipped = 0;          // for the metrics
  };

  void Add(Unit unit);

  // The unit for him, and his place moves on; null when there is none for him now. The flags in its
  // message are his, until the next call.
  const Unit* Take(Place& place, std::uint64_t now_us);

  // Whether Take would give him one.
  [[nodiscard]] bool HasUnitFor(const Place& place) const;

  // The last one that opens with a parameter set; null when it is gone, or never came.
  [[nodiscard]] const Unit* LastKeyframe() const;

 private:
  [[nodiscard]] const Unit& At(std::uint64_t number) const {
    return units_[static_cast<std::size_t>(number - first_)];
  }
  [[nodiscard]] std::uint64_t End() const { return first_ + units_.size(); }

  std::deque<Unit> units_;
  std::uint64_t first_ = 0;  // number of units_[0]
  std::size_t bytes_ = 0;
  std::optional<std::uint64_t> keyframe_;  // number of the last one, while it is here
};

}  // namespace kestrelbridge::console
