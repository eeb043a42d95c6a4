#include "app/main_app_link.h"

#include <cstdio>

#include "base/thread.h"
#include "net/udp_endpoint.h"
#include "state/main_app_link_record.h"
#include "state/telemetry.h"

namespace kestrelbridge {

int InitMainAppLink(const char* host, std::int32_t port) {
  MainAppLink& link = GetMainAppLink();
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
  return StartThread(&link.telemetry_thread, "telemetry", TelemetryThread, nullptr);
}

}  // namespace kestrelbridge
