// The ring as the element reads it: whatever becomes of the block, the next unit comes some time.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <vector>

#include "kestrelbridge/frame_block.h"

namespace kestrelbridge::gstreamer {

enum class RingState {
  kUnit,
  kAbsent,       // there is no ring
  kForbidden,    // there is one, which this user may not open
  kQuiet,        // there is one, and nothing new in it
  kInterrupted,  // Interrupt was called
};

// Opens the ring as soon as there is one, follows a ring that takes its place. One thread reads;
// Interrupt may be called from any other.
class RingFollower {
 public:
  // What the readers of all rings so far have counted.
  struct Counters : FrameBlockReader::Counters {
    std::uint64_t rings = 0;  // times that another ring took the place of the one that was read
  };

  explicit RingFollower(FrameBlockReader::Start start) : start_(start) {}

  // The next unit, as soon as there is one. Whatever else is the case is told after `patience`, at
  // most a second.
  RingState Next(std::vector<std::uint8_t>& unit, std::chrono::milliseconds patience);

  // Ends a Next that waits, and each further one. Returns when none waits any more.
  void Interrupt();

  [[nodiscard]] Counters counters() const;

  // Units from the time before the first Next that are still to come: with Start::kOldest, at
  // first.
  [[nodiscard]] std::size_t backlog() const { return backlog_.size(); }

 private:
  using Clock = std::chrono::steady_clock;

  struct Ring {
    FrameBlockMapping mapping;
    std::optional<FrameBlockReader> reader;
  };

  RingState Attach();
  void TakeBacklog();
  void LeaveRing();
  bool SleepWithoutRing(Clock::time_point end);
  void SleepAtRing(Clock::time_point end);

  FrameBlockReader::Start start_;
  std::deque<std::vector<std::uint8_t>> backlog_;
  Counters earlier_;               // of rings that are gone
  Clock::time_point looked_at_{};  // when the ring was last known to be the daemon's

  std::mutex
      mutex_;  // held by who puts a ring in its place, and by Interrupt while it looks at one
  std::condition_variable interruption_;
  std::optional<Ring> ring_;
  // Interrupt stores the one and loads the other, the reading thread the other way round: with the
  // default order one of the two sees what the other has stored.
  std::atomic<bool> interrupted_{false};
  std::atomic<bool> at_ring_{false};
};

}  // namespace kestrelbridge::gstreamer
