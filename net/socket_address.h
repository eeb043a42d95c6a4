// IPv4 address and port, as the daemon passes them around and as the socket calls want them.
#pragma once

#include <netinet/in.h>

#include <cstdint>

namespace kestrelbridge {

// `address` is in network byte order; `port` in host byte order, 0 where there is none.
struct UdpPeer {
  std::uint32_t address = 0;
  std::uint16_t port = 0;
};

inline sockaddr_in ToSockaddr(UdpPeer peer) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(peer.port);
  address.sin_addr.s_addr = peer.address;
  return address;
}

inline UdpPeer ToPeer(const sockaddr_in& address) {
  return {.address = address.sin_addr.s_addr, .port = ntohs(address.sin_port)};
}

// What the socket is bound to; port 0 when it is not open.
UdpPeer LocalAddress(int socket);

}  // namespace kestrelbridge
