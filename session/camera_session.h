// The session with the camera.
//
//   connecting     no datagram yet: a connection request every second, for as long as it takes
//   connected      the first datagram says "Camera connection found"; requests go on until the
//                  camera has sent command data, from then on a keepalive goes out every second,
//                  but not while a phone app drives the camera through the bridge
//   lost           more than 1000 ms of silence, seen at a tick of one second: the process ends,
//                  and a supervisor starts it afresh
#pragma once

#include <cstdint>
#include <span>

namespace kestrelbridge {

// Opens the camera's endpoint on a free port, sets its callbacks and starts the camera thread.
// `host` is dotted decimal, at most 21 characters. Returns 0, or -1 when the endpoint or the thread
// cannot be had. Start-up, once.
[[nodiscard]] int InitCameraLink(const char* host, std::int32_t port);

// Sends a connection request, a keepalive, or nothing, as the state of the session wants it. Camera
// thread, once a second.
void SendCameraHeartbeat();

// The camera endpoint's receive callback: stream first, then relay. Whatever reaches the port
// counts as the camera's, whoever sent it. Camera's receive thread.
void OnCameraDatagram(std::span<const std::uint8_t> datagram, const char* sender_address,
                      std::uint16_t sender_port);

}  // namespace kestrelbridge
