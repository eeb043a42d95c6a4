// Time stamps for units that carry none, from the times at which they were found in the ring.
#pragma once

#include <chrono>
#include <cstdint>

namespace kestrelbridge::gstreamer {

using Nanoseconds = std::chrono::nanoseconds;

// A line through the arrivals, one period a unit, to which each arrival pulls a little: the
// network's jitter comes out a thirtieth as strong, and a camera whose clock runs at another speed
// is followed. The line never leaves the kJitter before an arrival:
//
//      arrival - kJitter                arrival
//   -------|-----------------|-------------|------> time
//          '---- a stamp lies here --------'
//
// So whoever shows a unit kJitter after its stamp is never late, and no lag can grow, whatever the
// camera, its clock and the network do. After a pause the line is where it belongs with the first
// unit. Stamps rise always: units that come in a burst are set an eighth of a period apart.
//
// Pure; time is passed in, on any clock. One thread.
class UnitClock {
 public:
  static constexpr Nanoseconds kJitter{20'000'000};

  // The stream's own word on its frame rate, before the arrivals have told; no word: 30 a second.
  void ExpectPeriod(Nanoseconds period);

  // The stamp of a unit that arrived then, `steps` units after the one before: more than 1 when
  // some are known to be lost. Not below 0.
  Nanoseconds Stamp(Nanoseconds arrival, std::uint64_t steps);

  // Between two units, as far as is known.
  [[nodiscard]] Nanoseconds period() const;

 private:
  void Learn(double arrival_ns, double late_ns);
  void KeepNear(double arrival_ns, bool has_gap);

  double period_ns_ = 1e9 / 30;
  double line_ns_ = 0;       // where the latest unit lies on it
  double first_ns_ = 0;      // arrival of the first unit, to begin with
  std::uint64_t steps_ = 0;  // since then
  int misses_ = 0;           // of late, weighed against hits
  bool started_ = false;
  Nanoseconds stamp_{-1};  // the latest
};

}  // namespace kestrelbridge::gstreamer
