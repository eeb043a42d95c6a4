// A plain UDP socket for the stand-ins, which poll instead of having a receive thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>

#include "net/udp_endpoint.h"

namespace kestrelbridge::tools {

// Closes its socket when it goes.
class UdpSocket {
 public:
  // Binds to the address (port 0: a free one), with socket buffers as large as the daemon's. Throws
  // ToolError when that fails, AddressInUseError when somebody else listens there.
  explicit UdpSocket(UdpPeer local);
  ~UdpSocket();
  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;

  [[nodiscard]] int Descriptor() const { return socket_; }
  [[nodiscard]] UdpPeer Local() const;

  // Sends one datagram; waits while the send buffer is full. False, with errno set, when the system
  // refused it.
  [[nodiscard]] bool Send(std::span<const std::uint8_t> datagram, UdpPeer to) const;

  // Waits until a datagram has arrived; false when none has within that time.
  [[nodiscard]] bool WaitForDatagram(std::chrono::nanoseconds patience) const;

  // Takes one datagram that has arrived, without waiting. False when there is none. `datagram` is
  // the part of the buffer that it fills.
  [[nodiscard]] bool Receive(std::span<std::uint8_t> buffer,
                             std::span<const std::uint8_t>& datagram, UdpPeer& from) const;

 private:
  int socket_ = -1;
};

}  // namespace kestrelbridge::tools
