// What is known of the box at this moment, and what follows from it: why there is no picture, what
// is wrong, what the camera takes now. Plain values, pure functions.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "console/ring_follower.h"
#include "tools/main_app/telemetry_records.h"

namespace kestrelbridge::console {

struct BoxFacts {
  RingState ring = RingState::kAbsent;
  bool units_come = false;    // one has within the last second
  bool has_keyframe = false;  // to begin with
  bool has_daemon = false;    // writes its counters, or holds the ring
  bool has_counters = false;  // then the next three tell something
  bool camera_up = false;
  bool has_video = false;      // some has come since the daemon's start
  bool camera_was_up = false;  // since this program's start
  bool has_share = false;
  bool has_telemetry = false;   // within the last two seconds
  bool is_recording = false;    // the recording's time counts
  tools::TelemetryRecord text;  // the last one
};

// Why, as an identifier for the page and as text for people.
struct Problem {
  std::string_view id;
  std::string text;
};

// Nothing while units come that a new viewer can begin with.
std::optional<Problem> WhyNoPicture(const BoxFacts& facts);

// All that is wrong now.
std::vector<Problem> ProblemsOf(const BoxFacts& facts);

// The message "allowed": each command of the tables, and whether the present mode takes it.
std::string AllowedJson(const BoxFacts& facts, bool view_only);

}  // namespace kestrelbridge::console
