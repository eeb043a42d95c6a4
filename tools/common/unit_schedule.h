// When the camera sends its next unit. Time is passed in.
#pragma once

#include <chrono>
#include <cstdint>

namespace kestrelbridge::tools {

using SteadyTime = std::chrono::steady_clock::time_point;

// An absolute schedule: unit n is due n periods after the start, so that late wake-ups don't add
// up. A sender that was kept from sending makes up for it, but only for up to a second: what lies
// further back is dropped from the schedule instead of being sent in one heap.
class UnitSchedule {
 public:
  static constexpr std::chrono::seconds kMaxLag{1};

  explicit UnitSchedule(double units_per_second) : units_per_second_(units_per_second) {}

  void Start(SteadyTime now);

  // Time of the next unit.
  [[nodiscard]] SteadyTime NextDue() const;

  // One unit has been sent.
  void Advance() { ++unit_; }

  // Moves a schedule that lags more than kMaxLag, so that the next unit is due now. True when it
  // did.
  bool DropLag(SteadyTime now);

 private:
  double units_per_second_;
  SteadyTime start_;
  std::uint64_t unit_ = 0;
};

}  // namespace kestrelbridge::tools
