// What the element says while no unit comes, once a reason, and when they come again.
#pragma once

#include <gst/gst.h>

#include <chrono>
#include <cstdint>

#include "gstreamer/ring_follower.h"

namespace kestrelbridge::gstreamer {

// Element messages on the bus; both have the fields of a log line for programs:
//   kestrelbridge-waiting     reason (string, below), text (string, for people)
//   kestrelbridge-streaming   after a kestrelbridge-waiting
//
//   reason          meaning
//   no-ring         the daemon has not run since the box was started
//   no-permission   this user may not open the ring
//   no-units        nothing new in the ring for a second
//   no-keyframe     units come, but for two seconds none with which a decoder can begin
class Waiting {
 public:
  using Clock = std::chrono::steady_clock;

  // After each look at the ring that brought no unit to go on. `skips`: units come, which are
  // passed over. Posts a message, and a warning in the debug log, when the reason is a new one.
  void Note(GstElement* element, RingState state, bool skips);

  // A unit goes on.
  void End(GstElement* element);

  // Since the last unit, or since the beginning.
  [[nodiscard]] std::chrono::nanoseconds length() const { return Clock::now() - since_; }

 private:
  const char* reason_ = nullptr;  // told; null: units come
  Clock::time_point since_ = Clock::now();
};

}  // namespace kestrelbridge::gstreamer
