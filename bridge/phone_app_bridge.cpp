#include "bridge/phone_app_bridge.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdio>

#include "base/counters.h"
#include "bridge/redirect_rule.h"
#include "camera/camera_link.h"
#include "net/udp_endpoint.h"

namespace kestrelbridge {
namespace {

struct PhoneAppBridge {
  UdpEndpoint endpoint{.counters = &GetCounters().phone};
  // A line for each relayed datagram; nothing switches it on. Written at start-up, when the
  // camera's receive thread already reads it.
  std::atomic<bool> trace{false};
  std::array<std::uint8_t, kReceiveBufferSize> receive_buffer{};
};

constinit PhoneAppBridge bridge{};

void OnPhoneAppFound(const char* /*sender_address*/) {
  std::fprintf(stderr, "DJI MIMO connection found\n");
}

void OnPhoneAppLost() { std::fprintf(stderr, "DJI MIMO connection lost\n"); }

// The daemon's packet counter is not touched: these are not its own packets.
void RelayToCamera(std::span<const std::uint8_t> datagram, const char* /*sender_address*/,
                   std::uint16_t /*sender_port*/) {
  if (SendToCamera(datagram) != -1) {
    GetCounters().relayed_to_camera.Add();
  }
}

}  // namespace

int InitPhoneAppBridge(const char* camera_host, std::int32_t camera_port,
                       const char* access_point_interface) {
  bridge.trace = false;
  InstallRedirectRule(camera_host, camera_port, access_point_interface);
  if (Open(bridge.endpoint, kPhoneAppPort) != 0) {
    return -1;
  }
  bridge.endpoint.on_datagram = RelayToCamera;
  bridge.endpoint.on_found = OnPhoneAppFound;
  bridge.endpoint.on_lost = OnPhoneAppLost;
  AttachBuffer(bridge.endpoint, bridge.receive_buffer);
  return 0;
}

// The state of the link is the flag: one atomic that the receive thread and the watchdog agree on,
// where a flag of its own could be left wrong by a datagram that arrives as the link is lost.
bool PhoneAppConnected() { return LinkIsUp(bridge.endpoint); }

void ForwardToPhoneApp(std::span<const std::uint8_t> datagram) {
  if (bridge.trace) {
    std::fprintf(stderr, "To DJI MIMO: %d bytes\n", static_cast<int>(datagram.size()));
  }
  const UdpPeer phone_app = Peer(bridge.endpoint);
  if (phone_app.port != 0 && SendTo(bridge.endpoint, datagram, phone_app) != -1) {
    GetCounters().relayed_to_phone.Add();
  }
}

const UdpEndpoint& PhoneAppEndpoint() { return bridge.endpoint; }

void PhoneAppBridgeTick() { CheckLink(bridge.endpoint); }

}  // namespace kestrelbridge
