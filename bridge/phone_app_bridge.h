// The phone app's way to the camera, through the box.
//
//   phone app --> camera's address --(redirect rule)--> port 9004 --> camera
//   phone app <-- port 9004 <-- every datagram of the camera
//
// Datagrams are relayed unchanged and never looked into. While the phone app is connected it does
// the talking: keepalives and acknowledgements of the daemon's own pause, its commands still go
// out.
#pragma once

#include <cstdint>
#include <span>

#include "net/udp_endpoint.h"

namespace kestrelbridge {

// Installs the redirect rule and opens port 9004 for the phone app. `camera_host` is dotted
// decimal. Returns 0, or -1 when the port or a thread cannot be had;
// errno says why. Start-up, once.
[[nodiscard]] int InitPhoneAppBridge(const char* camera_host, std::int32_t camera_port,
                                     const char* access_point_interface);

// True between the phone app's first datagram and more than a second of its silence. Any thread.
bool PhoneAppConnected();

// Relays one datagram of the camera to the phone app's latest address; does nothing while there is
// none. Camera's receive thread.
void ForwardToPhoneApp(std::span<const std::uint8_t> datagram);

// The endpoint of port 9004, to look at; its socket is -1 when the port could not be had.
const UdpEndpoint& PhoneAppEndpoint();

// One step of the phone link's watchdog. Main thread, once a second.
void PhoneAppBridgeTick();

}  // namespace kestrelbridge
