// Time stamps of the units on the pipeline's clock, and the latency that belongs to them.
#pragma once

#include "gstreamer/picture_format.h"
#include "gstreamer/unit_clock.h"
#include "gstreamer/unit_source.h"

namespace kestrelbridge::gstreamer {

// A unit's stamp is the time at which the camera had sent it. The daemon publishes it with the next
// one, a period later; with --low-latency at once.
class UnitTimes {
 public:
  // By the daemon's own word, in its metrics; a period more where it says nothing. Reads a file.
  void AskTheDaemon();

  // Of a unit that was found at `now`, running time. What was published before we began gets the
  // time that it took, and all that follow come that much later.
  Nanoseconds Stamp(const OutgoingUnit& unit, Nanoseconds now);

  void ExpectRate(Ratio frame_rate);

  [[nodiscard]] Nanoseconds period() const { return clock_.period(); }

  // Renews the latency: true when it is another one by some milliseconds.
  bool LatencyHasChanged();

  // From a unit's stamp until it leaves the element, at most.
  [[nodiscard]] Nanoseconds Latency() const { return UnitClock::kJitter + delay_; }

 private:
  UnitClock clock_;
  bool publishes_at_once_ = false;
  Nanoseconds lead_{0};                  // of the stamps over the time, for the backlog's sake
  Nanoseconds backlog_time_{-1};         // where the backlog has got to; -1: there was none yet
  Nanoseconds delay_ = clock_.period();  // between the camera's sending and the ring
};

}  // namespace kestrelbridge::gstreamer
