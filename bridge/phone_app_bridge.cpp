#include "bridge/phone_app_bridge.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "base/counters.h"
#include "base/log.h"
#include "bridge/redirect_rule.h"
#include "camera/camera_link.h"
#include "net/clock.h"
#include "net/udp_endpoint.h"

namespace kestrelbridge {
namespace {

struct PhoneAppBridge {
  UdpEndpoint endpoint{.counters = &GetCounters().phone};
  // A line for each relayed datagram; nothing switches it on. Written at start-up, when the
  // camera's receive thread already reads it.
  std::atomic<bool> trace{false};
  std::array<std::uint8_t, kReceiveBufferSize> receive_buffer{};
  std::uint16_t camera_link_port = 0;    // our own, from which we speak to the camera; set by Init
  std::atomic<bool> newly_found{false};  // set by whoever reports it, taken by the receive thread

  // The receive thread's.
  bool echo_said = false;
  char phone_address[kAddressTextSize] = {};  // of the latest datagram since it was found
  std::uint32_t takeover_said_ms = 0;         // 0: never
};

constinit PhoneAppBridge bridge{};

constexpr std::uint32_t kTakeoverPeriodMs = 60'000;  // it is said at most so often

void OnPhoneAppFound(const char* /*sender_address*/) {
  Log("DJI MIMO connection found\n");
  bridge.newly_found.store(true, std::memory_order_relaxed);
}

void OnPhoneAppLost() { Log("DJI MIMO connection lost\n"); }

void SayThatThereIsNoCamera() {
  if (!bridge.echo_said) {
    bridge.echo_said = true;
    Log("The camera's address is this box's own, and port %u is the phone app's: there is "
        "no camera, see --host and --port\n",
        unsigned{kPhoneAppPort});
  }
}

// What we send comes back here when it is sent to this very port: to the camera, on a box that is
// to try a simulated camera and lacks its --port; to the main application, with a wrong --dst-port;
// to the phone, once somebody has sent us a datagram in our own name. Relayed, it would go round
// for ever.
bool MayBeThePhone(UdpPeer sender) {
  if (!IsOwnSocket(sender)) {
    return true;
  }
  if (sender.port == bridge.camera_link_port) {
    SayThatThereIsNoCamera();
  }
  return false;
}

// A phone may change its port, but hardly its address: two of them send, and each takes the
// camera's stream from the other.
void WatchForTakeovers(const char* sender_address) {
  const bool is_first = bridge.newly_found.load(std::memory_order_relaxed);
  if (!is_first && std::strcmp(bridge.phone_address, sender_address) == 0) {
    return;
  }
  if (is_first) {
    bridge.newly_found.store(false, std::memory_order_relaxed);
  } else {
    GetCounters().phone_peer_changes.Add();
    const std::uint32_t now = StampOf(NowMs());
    if (bridge.takeover_said_ms == 0 || now - bridge.takeover_said_ms > kTakeoverPeriodMs) {
      bridge.takeover_said_ms = now;
      Log("The phone app at %s has taken the stream from the one at %s\n", sender_address,
          bridge.phone_address);
    }
  }
  std::snprintf(bridge.phone_address, sizeof bridge.phone_address, "%s", sender_address);
}

// The daemon's packet counter is not touched: these are not its own packets.
void RelayToCamera(std::span<const std::uint8_t> datagram, const char* sender_address,
                   std::uint16_t /*sender_port*/) {
  WatchForTakeovers(sender_address);
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
  bridge.camera_link_port = LocalPort(GetCameraLink().endpoint);
  bridge.endpoint.accepts = MayBeThePhone;
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
    Log("To DJI MIMO: %d bytes\n", static_cast<int>(datagram.size()));
  }
  const UdpPeer phone_app = Peer(bridge.endpoint);
  if (phone_app.port != 0 && SendTo(bridge.endpoint, datagram, phone_app) != -1) {
    GetCounters().relayed_to_phone.Add();
  }
}

const UdpEndpoint& PhoneAppEndpoint() { return bridge.endpoint; }

void PhoneAppBridgeTick() { CheckLink(bridge.endpoint); }

}  // namespace kestrelbridge
