// The link to the main application as telemetry sees it; start-up fills it (app/main_app_link.h).
#pragma once

#include <pthread.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "base/counters.h"
#include "net/udp_endpoint.h"

namespace kestrelbridge {

inline constexpr std::size_t kMainAppReceiveBufferSize = 10'000;
inline constexpr std::size_t kDestinationHostSize = 20;  // 19 characters and a NUL

// Everything but the endpoints' own shared fields is written by start-up before the telemetry
// thread exists, and only read afterwards.
struct MainAppLink {
  // Takes in and drops; nothing is sent through it.
  UdpEndpoint second_endpoint{.counters = &GetCounters().main_app_second};
  // Commands come in, telemetry goes out.
  UdpEndpoint command_endpoint{.counters = &GetCounters().main_app};
  char destination_host[kDestinationHostSize] = {};
  std::uint32_t destination_port = 0;
  pthread_t telemetry_thread{};
  std::array<std::uint8_t, kMainAppReceiveBufferSize> second_buffer{};
  std::array<std::uint8_t, kMainAppReceiveBufferSize> command_buffer{};
};

// The process's one link to the main application.
MainAppLink& GetMainAppLink();

}  // namespace kestrelbridge
