#include "net/socket_buffers.h"

#include <sys/socket.h>

namespace kestrelbridge {
namespace {

// A plain request is capped silently by the kernel's limits; the forced one, which needs root, is
// not.
bool Request(int socket, int forced_option, int plain_option) {
  return setsockopt(socket, SOL_SOCKET, forced_option, &kSocketBufferBytes,
                    sizeof kSocketBufferBytes) == 0 ||
         setsockopt(socket, SOL_SOCKET, plain_option, &kSocketBufferBytes,
                    sizeof kSocketBufferBytes) == 0;
}

}  // namespace

bool RequestReceiveBuffer(int socket) { return Request(socket, SO_RCVBUFFORCE, SO_RCVBUF); }
bool RequestSendBuffer(int socket) { return Request(socket, SO_SNDBUFFORCE, SO_SNDBUF); }

}  // namespace kestrelbridge
