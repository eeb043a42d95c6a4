#include "tools/common/unit_schedule.h"

namespace kestrelbridge::tools {

void UnitSchedule::Start(SteadyTime now) {
  start_ = now;
  unit_ = 0;
}

SteadyTime UnitSchedule::NextDue() const {
  const std::chrono::duration<double> since_start(static_cast<double>(unit_) / units_per_second_);
  return start_ + std::chrono::duration_cast<std::chrono::nanoseconds>(since_start);
}

bool UnitSchedule::DropLag(SteadyTime now) {
  if (now - NextDue() <= kMaxLag) {
    return false;
  }
  Start(now);
  return true;
}

}  // namespace kestrelbridge::tools
