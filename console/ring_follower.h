// The one reader of the frame ring: a thread that waits for units, copies each once, and puts it
// into a basket for the loop. It has nothing that the daemon could ever wait for.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "console/unit_history.h"

namespace kestrelbridge::console {

enum class RingState {
  kFollowed,      // there is a ring; whether units come is another question
  kAbsent,        // no daemon has run since the box was started
  kNoPermission,  // this user may not read it
};

// What has come since the last look.
struct RingNews {
  RingState state = RingState::kAbsent;
  std::vector<Unit> units;
  std::uint64_t restarts = 0;  // of the daemon, in all
};

class RingFollower {
 public:
  // `wake` is called on the follower's thread after there are news.
  explicit RingFollower(std::function<void()> wake);
  ~RingFollower();
  RingFollower(const RingFollower&) = delete;
  RingFollower& operator=(const RingFollower&) = delete;

  // Any thread.
  RingNews Take();

 private:
  void Run();
  void Follow();
  void Put(Unit unit);
  void Tell(RingState state, std::uint64_t restarts);
  void Pause();

  std::function<void()> wake_;
  std::atomic<bool> stopping_{false};
  std::mutex mutex_;  // of the news
  RingNews news_;
  std::thread thread_;  // the last: it uses all of the above
};

// Microseconds of the clock by which units are stamped.
std::uint64_t SteadyMicroseconds();

}  // namespace kestrelbridge::console
