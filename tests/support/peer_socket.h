// A plain UDP socket for the test's end of a link.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "support/eventually.h"

namespace kestrelbridge::test {

struct UdpAddress {
  std::string host;  // dotted decimal
  std::uint16_t port = 0;
  bool operator==(const UdpAddress&) const = default;
};

struct ReceivedDatagram {
  std::vector<std::uint8_t> bytes;
  UdpAddress sender;
};

// Closed with its PeerSocket. Failures of the system throw and so fail the test. Send may be called
// by several threads at once.
class PeerSocket {
 public:
  // Port 0: a free one.
  explicit PeerSocket(const UdpAddress& local = {.host = "127.0.0.1", .port = 0});
  PeerSocket(const PeerSocket&) = delete;
  PeerSocket& operator=(const PeerSocket&) = delete;
  ~PeerSocket();

  std::uint16_t port() const;

  // False when the kernel did not take the datagram, as when nobody listens there.
  bool Send(std::span<const std::uint8_t> datagram, const UdpAddress& destination) const;

  // The next datagram, or nothing when none came in time.
  std::optional<ReceivedDatagram> Receive(std::chrono::milliseconds patience = Patience()) const;

 private:
  int socket_ = -1;
};

}  // namespace kestrelbridge::test
