#include "app/main_app_link.h"

#include <array>
#include <cstdio>

#include "net/udp_endpoint.h"

namespace kestrelbridge {
namespace {

constexpr std::size_t kReceiveBufferSize = 10'000;

// Owned by start-up; the telemetry thread reads it.
struct MainAppLink {
  UdpEndpoint second_endpoint;  // nothing is sent through it
  UdpEndpoint command_endpoint;
  char destination_host[20] = {};
  std::uint32_t destination_port = 0;
  std::array<std::uint8_t, kReceiveBufferSize> second_buffer{};
  std::array<std::uint8_t, kReceiveBufferSize> command_buffer{};
};

constinit MainAppLink main_app_link{};

}  // namespace

int InitMainAppLink(const char* host, std::int32_t port) {
  MainAppLink& link = main_app_link;
  std::snprintf(link.destination_host, sizeof link.destination_host, "%s", host);
  link.destination_port = static_cast<std::uint32_t>(port);
  if (Open(link.command_endpoint, 0) != 0) {
    return -1;
  }
  link.command_endpoint.clear_before_receive = true;
  AttachBuffer(link.command_endpoint, link.command_buffer);
  if (Open(link.second_endpoint, 0) != 0) {
    return -1;
  }
  AttachBuffer(link.second_endpoint, link.second_buffer);
  return 0;
}

}  // namespace kestrelbridge
