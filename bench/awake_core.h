// A processor core that is kept from falling asleep.
#pragma once

#include <atomic>
#include <thread>

namespace kestrelbridge::bench {

// While it lives, a thread of the lowest priority that there is (SCHED_IDLE) turns on that core. It
// gives way at once to whatever has work to do, so the core is as good as idle; but waking it up
// costs nothing. A virtual machine's core that sleeps must be woken by the host first, which takes
// longer than all that is measured here.
class AwakeCore {
 public:
  explicit AwakeCore(int core);
  AwakeCore(const AwakeCore&) = delete;
  AwakeCore& operator=(const AwakeCore&) = delete;
  ~AwakeCore();

 private:
  std::atomic<bool> end_{false};
  std::thread thread_;
};

}  // namespace kestrelbridge::bench
