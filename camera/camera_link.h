// The one connection to the camera, as all who send to it see it: the record, the counters of its
// packets and the send path. What happens to received datagrams is the session's business
// (session/camera_session.h).
#pragma once

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

#include "base/counters.h"
#include "net/udp_endpoint.h"

namespace kestrelbridge {

inline constexpr std::size_t kCameraHostSize = 22;  // 21 characters and a NUL
inline constexpr std::size_t kReceiveBufferSize = 10'000;

struct CameraLink {
  UdpEndpoint endpoint{.counters = &GetCounters().camera};

  // Set by InitCameraLink before it opens the endpoint; read only once that is open.
  char host[kCameraHostSize] = {};  // dotted decimal
  std::int32_t port = 0;            // as given; packets go to its low 16 bits

  pthread_t thread{};
  std::array<std::uint8_t, kReceiveBufferSize> receive_buffer{};

  // Packets that the daemon itself has sent to the camera, modulo 2^16; also the sequence of the
  // next command frame. Relayed datagrams of a phone do not count. Any thread, through
  // TakePacketNumber.
  std::atomic<std::uint16_t> outgoing_packet_counter{0};

  // Sequence of the camera's latest datagram. Written by the camera's receive thread, read by every
  // thread that builds a packet; it carries no other data, so relaxed access is enough.
  std::atomic<std::uint16_t> last_received_sequence{0};

  // True once the camera has sent command data; stays so. Written by the camera's receive thread
  // with release, read by the camera, telemetry and remote-control threads through
  // CameraDataReceived: who sees the flag also sees the sequence of the datagram that set it.
  std::atomic<bool> command_data_received{false};
};

// The process's one camera link. Any thread.
CameraLink& GetCameraLink();

// Takes the packet counter's value for one packet and advances it, in one step: no two packets get
// the same value. Any thread.
std::uint16_t TakePacketNumber();

// Sequence of the camera's latest datagram. Any thread.
std::uint16_t LastReceivedSequence();

// True once the camera has sent command data. Any thread.
bool CameraDataReceived();

// Sends the bytes as one datagram to the camera. Returns the bytes sent, or -1; that also before
// InitCameraLink, for the main application may command the camera as soon as the daemon listens to
// it. Any thread.
int SendToCamera(std::span<const std::uint8_t> data);

}  // namespace kestrelbridge
