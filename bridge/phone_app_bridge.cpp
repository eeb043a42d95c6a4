#include "bridge/phone_app_bridge.h"

#include <array>
#include <atomic>
#include <cstddef>

#include "base/counters.h"
#include "base/log.h"
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
  std::uint16_t camera_link_port = 0;  // our own, from which we speak to the camera; set by Init
  bool echo_said = false;              // receive thread's
};

constinit PhoneAppBridge bridge{};

void OnPhoneAppFound(const char* /*sender_address*/) { Log("DJI MIMO connection found\n"); }

void OnPhoneAppLost() { Log("DJI MIMO connection lost\n"); }

// What we send to the camera comes back here when the camera's address is that of this very port,
// as on a box that is to try a simulated camera and lacks its --port. Relayed, it would go round
// for ever. Who has seen the endpoint's peer also sees the port that Init has set.
bool IsOurOwn(UdpPeer peer) {
  return peer.port == bridge.camera_link_port && IsLocalAddress(peer.address);
}

void SayThatThereIsNoCamera() {
  if (!bridge.echo_said) {
    bridge.echo_said = true;
    Log("The camera's address is this box's own, and port %u is the phone app's: there is "
        "no camera, see --host and --port\n",
        unsigned{kPhoneAppPort});
  }
}

// The daemon's packet counter is not touched: these are not its own packets.
void RelayToCamera(std::span<const std::uint8_t> datagram, const char* /*sender_address*/,
                   std::uint16_t /*sender_port*/) {
  if (IsOurOwn(Peer(bridge.endpoint))) {
    SayThatThereIsNoCamera();
  } else if (SendToCamera(datagram) != -1) {
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
  if (phone_app.port != 0 && !IsOurOwn(phone_app) &&
      SendTo(bridge.endpoint, datagram, phone_app) != -1) {
    GetCounters().relayed_to_phone.Add();
  }
}

const UdpEndpoint& PhoneAppEndpoint() { return bridge.endpoint; }

void PhoneAppBridgeTick() { CheckLink(bridge.endpoint); }

}  // namespace kestrelbridge
