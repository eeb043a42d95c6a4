// The link to the main application: the endpoint that takes its commands and sends it telemetry,
// and a second endpoint that takes in and drops whatever arrives.
#pragma once

#include <cstdint>

namespace kestrelbridge {

// Opens both endpoints on free ports and starts the telemetry thread. `host` (dotted decimal, at
// most 19 characters) and `port` are where telemetry goes. Returns 0, or -1 when an endpoint or a
// thread cannot be had. Start-up, once.
[[nodiscard]] int InitMainAppLink(const char* host, std::int32_t port);

}  // namespace kestrelbridge
