#include "app/main_app_link.h"

#include <cstdio>
#include <span>

#include "base/thread.h"
#include "control/app_commands.h"
#include "control/remote_control.h"
#include "net/udp_endpoint.h"
#include "state/main_app_link_record.h"
#include "state/telemetry.h"

namespace kestrelbridge {
namespace {

// The endpoint clears its buffer first, and receives a byte less than it holds: the text ends.
void OnCommandDatagram(std::span<const std::uint8_t> datagram, const char* /*sender_address*/,
                       std::uint16_t /*sender_port*/) {
  DispatchAppCommand(reinterpret_cast<const char*>(datagram.data()));
}

void OnCommandsFound(const char* /*sender_address*/) {}
void OnCommandsLost() {}  // there all the same: it makes the watchdog forget the peer

}  // namespace

int InitMainAppLink(const char* host, std::int32_t port) {
  MainAppLink& link = GetMainAppLink();
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
  return StartThread(&link.telemetry_thread, "telemetry", TelemetryThread, nullptr);
}

}  // namespace kestrelbridge
