// The units that go on: from the first that a decoder can begin with, and after a loss again.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "gstreamer/nal_units.h"
#include "gstreamer/picture_format.h"
#include "gstreamer/ring_follower.h"

namespace kestrelbridge::gstreamer {

// The latest of each, with their headers, and what the SPS says.
struct ParameterSets {
  std::vector<std::uint8_t> sps;
  std::vector<std::uint8_t> pps;
  PictureFormat format;
  bool operator==(const ParameterSets&) const = default;
};

struct UnitPolicy {
  bool wait_for_keyframe = true;
  bool skip_on_loss = true;  // to the next keyframe
};

struct OutgoingUnit {
  std::vector<std::uint8_t> bytes;
  std::chrono::steady_clock::time_point found;
  bool is_keyframe = false;  // opens with a sound SPS, or holds an IDR slice
  bool has_parameter_sets = false;
  bool is_discontinuous = false;  // something is missing before it
  bool is_backlog = false;        // published before we began
  std::uint64_t steps = 1;        // units since the one before, lost and skipped ones included
  std::shared_ptr<const ParameterSets> sets;  // in force; null until there are an SPS and a PPS
};

class UnitSource {
 public:
  struct Counters : RingFollower::Counters {
    std::uint64_t skipped = 0;  // read, but not handed out for want of a keyframe
    std::uint64_t refused = 0;  // parameter sets of which no picture can come
  };

  explicit UnitSource(FrameBlockReader::Start start) : ring_(start) {}

  // As RingFollower::Next; kUnit when `unit` holds the next one to go on. Units that are skipped
  // count as time.
  RingState Next(const UnitPolicy& policy, std::chrono::milliseconds patience, OutgoingUnit& unit);

  // From any thread; for good.
  void Interrupt() { ring_.Interrupt(); }

  [[nodiscard]] Counters counters() const;

 private:
  void CountLosses(const UnitPolicy& policy);
  bool Look(OutgoingUnit& unit);
  bool TakeParameterSets(OutgoingUnit& unit);

  RingFollower ring_;
  RingFollower::Counters seen_;  // as of the latest unit
  std::vector<NalUnit> nals_;
  std::shared_ptr<const ParameterSets> sets_;
  bool first_ = true;
  bool wants_keyframe_ = false;
  bool is_discontinuous_ = false;
  std::uint64_t steps_ = 0;
  std::uint64_t skipped_ = 0;
  std::uint64_t refused_ = 0;
};

}  // namespace kestrelbridge::gstreamer
