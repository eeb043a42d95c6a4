#include "net/clock.h"

namespace kestrelbridge {

std::uint32_t NowMs() {
  std::timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return MillisecondsOf(now);
}

}  // namespace kestrelbridge
