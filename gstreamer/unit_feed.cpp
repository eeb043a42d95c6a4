#include "gstreamer/unit_feed.h"

#include <pthread.h>

#include <cstddef>

namespace kestrelbridge::gstreamer {
namespace {

constexpr std::size_t kMostUnits = kSlotCount;

// So long at most until another reason to wait is seen.
constexpr std::chrono::milliseconds kPatience{250};

}  // namespace

UnitFeed::~UnitFeed() {
  {
    const std::lock_guard lock(mutex_);
    ends_ = true;
  }
  room_.notify_all();
  source_.Interrupt();
  if (thread_.joinable()) {
    thread_.join();
  }
}

RingState UnitFeed::Take(OutgoingUnit& unit, std::chrono::milliseconds patience) {
  if (!thread_.joinable()) {
    thread_ = std::thread([this] { Run(); });
    pthread_setname_np(thread_.native_handle(), "kestrel-ring");
  }
  std::unique_lock lock(mutex_);
  news_.wait_for(lock, patience, [this] { return interrupted_ || !units_.empty(); });
  if (interrupted_) {
    return RingState::kInterrupted;
  }
  if (units_.empty()) {
    return state_;
  }
  unit = std::move(units_.front());
  units_.pop_front();
  lock.unlock();
  room_.notify_one();
  return RingState::kUnit;
}

void UnitFeed::Run() {
  for (OutgoingUnit unit;;) {
    const RingState state = source_.Next(policy_(), kPatience, unit);
    if (state == RingState::kInterrupted) {
      return;
    }
    std::unique_lock lock(mutex_);
    state_ = state == RingState::kUnit ? RingState::kQuiet : state;
    counters_ = source_.counters();
    if (state == RingState::kUnit) {
      room_.wait(lock, [this] { return ends_ || units_.size() < kMostUnits; });
      units_.push_back(std::exchange(unit, {}));
      lock.unlock();
      news_.notify_one();
    }
  }
}

void UnitFeed::Interrupt() {
  {
    const std::lock_guard lock(mutex_);
    interrupted_ = true;
  }
  news_.notify_all();
}

void UnitFeed::Continue() {
  const std::lock_guard lock(mutex_);
  interrupted_ = false;
}

UnitSource::Counters UnitFeed::counters() const {
  const std::lock_guard lock(mutex_);
  return counters_;
}

}  // namespace kestrelbridge::gstreamer
