#include "tools/common/stream_report.h"

namespace kestrelbridge::tools {

using std::chrono::duration;

bool ReportClock::IsDue(std::uint64_t bytes, SteadyTime now) {
  if (now < NextReport()) {
    return false;
  }
  megabits_per_second_ =
      static_cast<double>((bytes - last_bytes_) * 8) / duration<double>(now - last_).count() / 1e6;
  last_ += std::chrono::floor<std::chrono::seconds>(now - last_);
  last_bytes_ = bytes;
  return true;
}

double ReportClock::seconds() const { return duration<double>(last_ - start_).count(); }

}  // namespace kestrelbridge::tools
