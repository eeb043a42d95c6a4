#include "console/ring_follower.h"

#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <utility>

#include "kestrelbridge/frame_block.h"

namespace kestrelbridge::console {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kTryAgain{250};
// Also how long the end of the process may wait for this thread.
constexpr milliseconds kLongestWait{500};
// A loop that has not come for its units for that long does not get them all.
constexpr std::size_t kFullBasket = UnitHistory::kMostUnits;

std::uint64_t Gaps(const FrameBlockReader::Counters& counters) {
  return counters.lost + counters.laps + counters.restarts;
}

}  // namespace

std::uint64_t SteadyMicroseconds() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

RingFollower::RingFollower(std::function<void()> wake)
    : wake_(std::move(wake)), thread_([this] { Run(); }) {}

RingFollower::~RingFollower() {
  stopping_ = true;
  thread_.join();
}

RingNews RingFollower::Take() {
  const std::lock_guard lock(mutex_);
  RingNews taken = {.state = news_.state, .units = {}, .restarts = news_.restarts};
  taken.units.swap(news_.units);
  return taken;
}

void RingFollower::Run() {
  pthread_setname_np(pthread_self(), "ring");
  while (!stopping_) {
    Follow();
    Pause();
  }
}

// Until the ring is another one.
void RingFollower::Follow() {
  FrameBlockMapping mapping;
  if (!mapping.Open()) {
    Tell(errno == EACCES ? RingState::kNoPermission : RingState::kAbsent, 0);
    return;
  }
  FrameBlockReader reader(mapping.data(), FrameBlockReader::Start::kOldest);
  Tell(RingState::kFollowed, 0);
  std::vector<std::uint8_t> unit;
  std::uint64_t gaps = 0;
  std::uint64_t restarts = 0;
  auto last_news = std::chrono::steady_clock::now();
  while (!stopping_) {
    if (reader.Next(unit)) {
      const std::uint64_t gaps_now = Gaps(reader.counters());
      Put(MakeUnit(unit, SteadyMicroseconds(), std::exchange(gaps, gaps_now) != gaps_now));
      last_news = std::chrono::steady_clock::now();
      continue;
    }
    if (const std::uint64_t now = reader.counters().restarts; now != restarts) {
      Tell(RingState::kFollowed, now - std::exchange(restarts, now));
    }
    const bool has_news = reader.Wait(kLongestWait);
    const auto now = std::chrono::steady_clock::now();
    if (!has_news && now - last_news > std::chrono::seconds{1}) {
      if (!mapping.IsCurrent()) {
        return;
      }
      last_news = now;
    }
  }
}

void RingFollower::Put(Unit unit) {
  {
    const std::lock_guard lock(mutex_);
    if (news_.units.size() == kFullBasket) {
      news_.units.erase(news_.units.begin());
      news_.units.front().follows_gap = true;
    }
    news_.units.push_back(std::move(unit));
  }
  wake_();
}

void RingFollower::Tell(RingState state, std::uint64_t restarts) {
  bool is_new = restarts != 0;
  {
    const std::lock_guard lock(mutex_);
    is_new = is_new || news_.state != state;
    news_.state = state;
    news_.restarts += restarts;
  }
  if (is_new) {
    wake_();
  }
}

void RingFollower::Pause() {
  const timespec pause = {0, std::chrono::nanoseconds(kTryAgain).count()};
  if (!stopping_) {
    nanosleep(&pause, nullptr);
  }
}

}  // namespace kestrelbridge::console
