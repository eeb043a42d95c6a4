#include "gstreamer/ring_follower.h"

#include <algorithm>
#include <cerrno>
#include <thread>
#include <utility>

namespace kestrelbridge::gstreamer {
namespace {

constexpr std::chrono::milliseconds kBetweenTries{50};  // to open a ring
constexpr std::chrono::seconds kQuiet{1};               // then: is it still the daemon's ring?
constexpr std::chrono::microseconds kBetweenWakeUps{100};

}  // namespace

RingState RingFollower::Next(std::vector<std::uint8_t>& unit, std::chrono::milliseconds patience) {
  const auto end = Clock::now() + patience;
  for (;;) {
    if (interrupted_.load()) {
      return RingState::kInterrupted;
    }
    if (!backlog_.empty()) {
      unit = std::move(backlog_.front());
      backlog_.pop_front();
      return RingState::kUnit;
    }
    const RingState state = Attach();
    if (state == RingState::kUnit) {
      continue;  // from the backlog
    }
    if (state != RingState::kQuiet) {
      if (!SleepWithoutRing(end)) {
        return state;
      }
    } else if (ring_->reader->Next(unit)) {
      looked_at_ = Clock::now();
      return RingState::kUnit;
    } else if (Clock::now() >= end) {
      return RingState::kQuiet;
    } else {
      SleepAtRing(end);
    }
  }
}

// kQuiet where there is a ring to read, kUnit when it brought a backlog.
RingState RingFollower::Attach() {
  if (ring_) {
    return RingState::kQuiet;
  }
  const std::lock_guard lock(mutex_);
  ring_.emplace();
  if (!ring_->mapping.Open()) {
    const int reason = errno;
    ring_.reset();
    return reason == ENOENT || reason == EAGAIN ? RingState::kAbsent : RingState::kForbidden;
  }
  ring_->reader.emplace(ring_->mapping.data(), start_);
  looked_at_ = Clock::now();
  if (start_ == FrameBlockReader::Start::kOldest && earlier_.rings == 0) {
    TakeBacklog();
  }
  start_ = FrameBlockReader::Start::kOldest;  // of a ring that takes this one's place all is new
  return backlog_.empty() ? RingState::kQuiet : RingState::kUnit;
}

void RingFollower::TakeBacklog() {
  std::vector<std::uint8_t> unit;
  // The bound is for a daemon that publishes faster than we copy.
  while (backlog_.size() < kSlotCount && ring_->reader->Next(unit)) {
    backlog_.push_back(unit);
  }
}

void RingFollower::LeaveRing() {
  Counters all = counters();
  ++all.rings;
  const std::lock_guard lock(mutex_);
  ring_.reset();
  earlier_ = all;
}

// False when the time is over.
bool RingFollower::SleepWithoutRing(Clock::time_point end) {
  std::unique_lock lock(mutex_);
  interruption_.wait_until(lock, std::min(end, Clock::now() + kBetweenTries),
                           [this] { return interrupted_.load(); });
  return Clock::now() < end;
}

void RingFollower::SleepAtRing(Clock::time_point end) {
  at_ring_.store(true);
  const bool has_news = ring_->reader->Wait(end - Clock::now(), &interrupted_);
  at_ring_.store(false);
  if (!has_news && Clock::now() - looked_at_ >= kQuiet) {
    looked_at_ = Clock::now();
    if (!ring_->mapping.IsCurrent()) {
      LeaveRing();
    }
  }
}

void RingFollower::Interrupt() {
  {
    const std::lock_guard lock(mutex_);
    interrupted_.store(true);
  }
  interruption_.notify_all();
  // It may be about to fall asleep: once is not enough.
  while (at_ring_.load()) {
    {
      const std::lock_guard lock(mutex_);
      if (ring_) {
        WakeReaders(ring_->mapping.data());
      }
    }
    std::this_thread::sleep_for(kBetweenWakeUps);
  }
}

RingFollower::Counters RingFollower::counters() const {
  Counters all = earlier_;
  if (ring_) {
    const FrameBlockReader::Counters& here = ring_->reader->counters();
    all.units += here.units;
    all.bytes += here.bytes;
    all.lost += here.lost;
    all.laps += here.laps;
    all.restarts += here.restarts;
  }
  return all;
}

}  // namespace kestrelbridge::gstreamer
