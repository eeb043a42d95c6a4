#include "gstreamer/unit_source.h"

#include <algorithm>
#include <utility>

#include "gstreamer/avc_format.h"

namespace kestrelbridge::gstreamer {
namespace {

using Clock = std::chrono::steady_clock;

// Longer ones do not come from a camera.
constexpr std::size_t kLongestSet = 1024;

void Assign(std::vector<std::uint8_t>& set, NalUnit nal) { set.assign(nal.begin(), nal.end()); }

}  // namespace

RingState UnitSource::Next(const UnitPolicy& policy, std::chrono::milliseconds patience,
                           OutgoingUnit& unit) {
  if (first_) {
    first_ = false;
    wants_keyframe_ = policy.wait_for_keyframe;
  }
  const auto end = Clock::now() + patience;
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    unit = {};
    const bool had_backlog = ring_.backlog() != 0;
    const RingState state = ring_.Next(unit.bytes, std::max(left, std::chrono::milliseconds{0}));
    if (state != RingState::kUnit) {
      return state;
    }
    unit.is_backlog = had_backlog || ring_.backlog() != 0;
    CountLosses(policy);
    if (Look(unit) && (unit.is_keyframe || !wants_keyframe_)) {
      wants_keyframe_ = false;
      unit.found = Clock::now();
      unit.sets = sets_;
      unit.steps = std::exchange(steps_, 0);
      unit.is_discontinuous = std::exchange(is_discontinuous_, false);
      return RingState::kUnit;
    }
    ++skipped_;
    if (left.count() <= 0) {
      return RingState::kQuiet;
    }
  }
}

// After the unit was taken.
void UnitSource::CountLosses(const UnitPolicy& policy) {
  const RingFollower::Counters now = ring_.counters();
  const bool lost =
      now.lost != seen_.lost || now.restarts != seen_.restarts || now.rings != seen_.rings;
  is_discontinuous_ = is_discontinuous_ || lost || now.laps != seen_.laps;
  wants_keyframe_ = wants_keyframe_ || (lost && policy.skip_on_loss);
  steps_ += 1 + (now.lost - seen_.lost);
  seen_ = now;
}

// What kind of unit it is. False when no decoder could make anything of it.
bool UnitSource::Look(OutgoingUnit& unit) {
  SplitNalUnits(unit.bytes, Extent::kHead, nals_);
  if (!TakeParameterSets(unit)) {
    ++refused_;
    wants_keyframe_ = true;
    return false;
  }
  const bool is_idr = !nals_.empty() && TypeOf(nals_.back()) == kNalTypeIdrSlice;
  unit.is_keyframe = sets_ && (unit.is_keyframe || is_idr);
  return true;
}

// False when there are such that describe no picture; the earlier ones stay then.
bool UnitSource::TakeParameterSets(OutgoingUnit& unit) {
  NalUnit sps;
  NalUnit pps;
  for (const NalUnit nal : nals_) {
    if (TypeOf(nal) == kNalTypeSps) {
      sps = nal;
    } else if (TypeOf(nal) == kNalTypePps) {
      pps = nal;
    }
  }
  if (sps.empty() && pps.empty()) {
    return true;
  }
  ParameterSets sets = sets_ ? *sets_ : ParameterSets{};
  if (!sps.empty()) {
    const auto format = ReadPictureFormat(sps);
    if (!format || sps.size() < kSmallestSps || sps.size() > kLongestSet) {
      return false;
    }
    sets.format = *format;
    Assign(sets.sps, sps);
    unit.is_keyframe = true;
  }
  if (!pps.empty()) {
    if (pps.size() > kLongestSet) {
      return false;
    }
    Assign(sets.pps, pps);
  }
  unit.has_parameter_sets = true;
  if (!sets.sps.empty() && !sets.pps.empty()) {
    if (!sets_ || *sets_ != sets) {
      sets_ = std::make_shared<const ParameterSets>(std::move(sets));
    }
  }
  return true;
}

UnitSource::Counters UnitSource::counters() const {
  Counters all;
  static_cast<RingFollower::Counters&>(all) = ring_.counters();
  all.skipped = skipped_;
  all.refused = refused_;
  return all;
}

}  // namespace kestrelbridge::gstreamer
