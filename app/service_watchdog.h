// The service's watchdog: systemd ends and restarts a daemon that has not been heard for a while.
// It is fed as long as the main loop turns and no receive thread hangs.
#pragma once

#include <cstdint>

#include "base/counters.h"

namespace kestrelbridge {

// What one receive thread had received when it was last looked at. Main thread.
struct ReceiveWatch {
  const LinkCounters* counters = nullptr;
  std::uint64_t received = 0;
};

// True when the thread has been inside one and the same datagram since the last look. One that
// waits for a datagram does not hang, however long it waits.
[[nodiscard]] bool HasHung(ReceiveWatch& watch);

// Says that start-up is through, once, and feeds the watchdog. Main thread, once a second.
void FeedServiceWatchdog();

}  // namespace kestrelbridge
