#include "gstreamer/unit_clock.h"

#include <algorithm>
#include <cmath>

namespace kestrelbridge::gstreamer {
namespace {

constexpr double kShortestPeriodNs = 1e9 / 1000;
constexpr double kLongestPeriodNs = 1e9;
constexpr double kBandNs = static_cast<double>(UnitClock::kJitter.count());

// How much of an arrival's distance moves the line, and the period: critically damped, with some 64
// units to settle.
constexpr double kLinePull = 1.0 / 32;
constexpr double kPeriodPull = 1.0 / 4096;

// So many units are averaged before the pull takes over.
constexpr std::uint64_t kFewest = 4;
constexpr std::uint64_t kFirstUnits = 48;
constexpr int kMostMisses = 32;

// A unit that is so near to a whole number of periods late tells of units that the camera or the
// air has lost.
constexpr double kGapTolerance = 0.25;

double MissingSteps(double late_ns, double period_ns) {
  const double missing = std::round(late_ns / period_ns);
  const bool is_gap =
      late_ns > kBandNs && std::abs(late_ns - missing * period_ns) < kGapTolerance * period_ns;
  return is_gap ? missing : 0;
}

}  // namespace

void UnitClock::ExpectPeriod(Nanoseconds period) {
  if (steps_ < kFewest) {
    period_ns_ =
        std::clamp(static_cast<double>(period.count()), kShortestPeriodNs, kLongestPeriodNs);
  }
}

Nanoseconds UnitClock::period() const { return Nanoseconds(static_cast<std::int64_t>(period_ns_)); }

void UnitClock::Learn(double arrival_ns, double late_ns) {
  if (steps_ < kFirstUnits) {
    if (steps_ >= kFewest) {
      period_ns_ = (arrival_ns - first_ns_) / static_cast<double>(steps_);
    }
  } else {
    period_ns_ += kPeriodPull * std::clamp(late_ns, -kBandNs, kBandNs);
  }
  period_ns_ = std::clamp(period_ns_, kShortestPeriodNs, kLongestPeriodNs);
}

// Where the line misses the arrivals, or units seem to be missing, more often than not, the camera
// has another frame rate now.
void UnitClock::KeepNear(double arrival_ns, bool has_gap) {
  const double near_ns = std::clamp(line_ns_, arrival_ns - kBandNs, arrival_ns);
  misses_ += near_ns != line_ns_ || has_gap ? 1 : -1;
  misses_ = std::max(misses_, 0);
  line_ns_ = near_ns;
  if (misses_ == kMostMisses) {
    misses_ = 0;
    steps_ = 0;
    first_ns_ = arrival_ns;
  }
}

Nanoseconds UnitClock::Stamp(Nanoseconds arrival, std::uint64_t steps) {
  const auto arrival_ns = static_cast<double>(arrival.count());
  bool has_gap = false;
  if (!started_) {
    started_ = true;
    first_ns_ = arrival_ns;
    line_ns_ = arrival_ns - kBandNs / 2;
  } else {
    auto advance = static_cast<double>(std::clamp<std::uint64_t>(steps, 1, UINT16_MAX));
    double late_ns = arrival_ns - kBandNs / 2 - (line_ns_ + advance * period_ns_);
    const bool knows_period = steps_ >= kFirstUnits;
    const double missing = knows_period ? MissingSteps(late_ns, period_ns_) : 0;
    has_gap = missing != 0;
    advance += missing;
    late_ns -= missing * period_ns_;
    steps_ += static_cast<std::uint64_t>(std::min(advance, 1e6));
    line_ns_ += advance * period_ns_ + kLinePull * late_ns;
    Learn(arrival_ns, late_ns);
  }
  KeepNear(arrival_ns, has_gap);
  const Nanoseconds earliest = stamp_ + Nanoseconds(static_cast<std::int64_t>(period_ns_ / 8));
  const Nanoseconds on_line(static_cast<std::int64_t>(std::max(line_ns_, 0.0)));
  stamp_ = stamp_ < Nanoseconds(0) ? on_line : std::max(on_line, earliest);
  return stamp_;
}

}  // namespace kestrelbridge::gstreamer
