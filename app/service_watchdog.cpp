#include "app/service_watchdog.h"

#include <algorithm>
#include <array>

#include "base/service_notify.h"

namespace kestrelbridge {

// Each counter is exact or one behind. The next look sees what this one missed, and the service
// manager waits for several.
bool HasHung(ReceiveWatch& watch) {
  const std::uint64_t received = watch.counters->received_datagrams.Value();
  const bool inside = watch.counters->handled_datagrams.Value() != received;
  const bool moved = received != watch.received;
  watch.received = received;
  return inside && !moved;
}

void FeedServiceWatchdog() {
  static constinit bool ready = false;
  static std::array<ReceiveWatch, 4> watches = {{{.counters = &GetCounters().camera},
                                                 {.counters = &GetCounters().main_app},
                                                 {.counters = &GetCounters().phone},
                                                 {.counters = &GetCounters().main_app_second}}};
  ready = ready || NotifyService("READY=1");
  // All of them are looked at, each time.
  if (std::ranges::count_if(watches, HasHung) == 0) {
    NotifyService("WATCHDOG=1");
  }
}

}  // namespace kestrelbridge
