#include "gstreamer/unit_times.h"

#include <chrono>

#include "tools/common/metrics_reading.h"

namespace kestrelbridge::gstreamer {
namespace {

constexpr Nanoseconds kNoticeable{5'000'000};
constexpr char kLowLatencyMetric[] = "kestrelbridge_low_latency";

}  // namespace

void UnitTimes::AskTheDaemon() {
  const auto metrics = tools::FreshMetrics();
  publishes_at_once_ = metrics && metrics->Value(kLowLatencyMetric).value_or(0) != 0;
}

bool UnitTimes::LatencyHasChanged() {
  const Nanoseconds delay = publishes_at_once_ ? Nanoseconds(0) : clock_.period();
  if (std::chrono::abs(delay - delay_) < kNoticeable) {
    return false;
  }
  delay_ = delay;
  return true;
}

void UnitTimes::ExpectRate(Ratio frame_rate) {
  if (frame_rate.numerator != 0) {
    clock_.ExpectPeriod(
        Nanoseconds(1'000'000'000LL * frame_rate.denominator / frame_rate.numerator));
  }
}

Nanoseconds UnitTimes::Stamp(const OutgoingUnit& unit, Nanoseconds now) {
  Nanoseconds arrival = now + lead_;
  if (unit.is_backlog) {
    const bool is_first = backlog_time_ < Nanoseconds(0);
    backlog_time_ = is_first ? now : backlog_time_ + clock_.period();
    lead_ = backlog_time_ + clock_.period() / 2 - now;  // the next one comes within a period
    arrival = backlog_time_;
  }
  return clock_.Stamp(arrival - delay_, unit.steps);
}

}  // namespace kestrelbridge::gstreamer
