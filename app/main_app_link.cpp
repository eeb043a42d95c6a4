#include "app/main_app_link.h"

#include <array>
#include <cstdio>
#include <span>

#include "control/app_commands.h"
#include "control/remote_control.h"
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

// The endpoint clears its buffer first, and receives a byte less than it holds: the text ends.
void OnCommandDatagram(std::span<const std::uint8_t> datagram, const char* /*sender_address*/,
                       std::uint16_t /*sender_port*/) {
  DispatchAppCommand(reinterpret_cast<const char*>(datagram.data()));
}

void OnCommandsFound(const char* /*sender_address*/) {}
void OnCommandsLost() {}  // there all the same: it makes the watchdog forget the peer

}  // namespace

int InitMainAppLink(const char* host, std::int32_t port) {
  MainAppLink& link = main_app_link;
  if (StartRemoteControl() != 0) {
    return -1;
  }
  std::snprintf(link.destination_host, sizeof link.destination_host, "%s", host);
  link.destination_port = static_cast<std::uint32_t>(port);
  if (Open(link.command_endpoint, 0) != 0) {
    return -1;
  }
  link.command_endpoint.clear_before_receive = true;
  link.command_endpoint.on_datagram = OnCommandDatagram;
  link.command_endpoint.on_found = OnCommandsFound;
  link.command_endpoint.on_lost = OnCommandsLost;
  AttachBuffer(link.command_endpoint, link.command_buffer);
  if (Open(link.second_endpoint, 0) != 0) {
    return -1;
  }
  AttachBuffer(link.second_endpoint, link.second_buffer);
  return 0;
}

}  // namespace kestrelbridge
