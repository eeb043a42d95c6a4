#include "net/socket_address.h"

#include <sys/socket.h>

namespace kestrelbridge {

UdpPeer LocalAddress(int socket) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
  return ToPeer(address);
}

}  // namespace kestrelbridge
