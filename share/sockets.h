// The share's sockets: how each is opened. What goes through them is the relay's business.
#pragma once

#include <sys/types.h>

#include <stdexcept>
#include <string>

#include "net/socket_address.h"
#include "share/owned_descriptor.h"

namespace kestrelbridge::share {

// Thrown at the start only. The text names the thing, its value, and what to do about it.
class StartError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A UDP socket bound to the address; never waits. Throws StartError.
[[nodiscard]] OwnedDescriptor OpenUdpSocket(UdpPeer local);

// A listening SOCK_SEQPACKET socket at the path, with that mode from its first moment on, and of
// that group where there is one (an empty name: the process's own). A socket file that nobody
// answers at is left over and replaced; one that somebody answers at, or a file of another kind, is
// not. Throws StartError.
[[nodiscard]] OwnedDescriptor ListenAt(const std::string& path, mode_t mode,
                                       const std::string& group);

}  // namespace kestrelbridge::share
