#include "awake_core.h"

#include <sched.h>

#include "program.h"

namespace kestrelbridge::bench {

AwakeCore::AwakeCore(int core)
    : thread_([this, core] {
        PinToCore(core);
        const sched_param no_priority{};
        sched_setscheduler(0, SCHED_IDLE, &no_priority);
        while (!end_.load(std::memory_order_relaxed)) {
        }
      }) {}

AwakeCore::~AwakeCore() {
  end_.store(true, std::memory_order_relaxed);
  thread_.join();
}

}  // namespace kestrelbridge::bench
