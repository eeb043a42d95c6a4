#include "tools/udp_socket.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "tools/host_port.h"
#include "tools/tool_error.h"

namespace kestrelbridge {
namespace {

constexpr int kSocketBufferBytes = 10'000'000;

sockaddr_in ToSockaddr(UdpPeer peer) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(peer.port);
  address.sin_addr.s_addr = peer.address;
  return address;
}

UdpPeer ToPeer(const sockaddr_in& address) {
  return {.address = address.sin_addr.s_addr, .port = ntohs(address.sin_port)};
}

// The forced request needs root, the plain one is capped by the kernel's limits; the stand-in works
// with whatever it gets.
void EnlargeBuffer(int socket, int forced_option, int plain_option) {
  if (setsockopt(socket, SOL_SOCKET, forced_option, &kSocketBufferBytes,
                 sizeof kSocketBufferBytes) != 0) {
    setsockopt(socket, SOL_SOCKET, plain_option, &kSocketBufferBytes, sizeof kSocketBufferBytes);
  }
}

[[noreturn]] void RefuseAddress(UdpPeer local, int error) {
  const std::string place = HostPortText(local);
  if (error == EADDRINUSE) {
    throw AddressInUseError(place + ": address in use; end the program that listens there (\"ss " +
                            "-ulnp\" names it) or choose another port");
  }
  throw ToolError("cannot listen on " + place + ": " + std::strerror(error));
}

}  // namespace

UdpSocket::UdpSocket(UdpPeer local) {
  const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
  if (socket == -1) {
    throw ToolError(std::string("cannot open a UDP socket: ") + std::strerror(errno));
  }
  EnlargeBuffer(socket, SO_RCVBUFFORCE, SO_RCVBUF);
  EnlargeBuffer(socket, SO_SNDBUFFORCE, SO_SNDBUF);
  const sockaddr_in address = ToSockaddr(local);
  if (bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int error = errno;
    close(socket);
    RefuseAddress(local, error);
  }
  socket_ = socket;
}

UdpSocket::~UdpSocket() { close(socket_); }

UdpPeer UdpSocket::Local() const {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size);
  return ToPeer(address);
}

bool UdpSocket::Send(std::span<const std::uint8_t> datagram, UdpPeer to) const {
  const sockaddr_in address = ToSockaddr(to);
  ssize_t sent = 0;
  do {
    sent = sendto(socket_, datagram.data(), datagram.size(), 0,
                  reinterpret_cast<const sockaddr*>(&address), sizeof address);
  } while (sent == -1 && errno == EINTR);
  return sent == static_cast<ssize_t>(datagram.size());
}

bool UdpSocket::WaitForDatagram(std::chrono::nanoseconds patience) const {
  pollfd descriptor = {.fd = socket_, .events = POLLIN, .revents = 0};
  const auto patience_ms = std::chrono::ceil<std::chrono::milliseconds>(patience).count();
  return poll(&descriptor, 1, static_cast<int>(std::max<std::int64_t>(patience_ms, 0))) > 0;
}

bool UdpSocket::Receive(std::span<std::uint8_t> buffer, std::span<const std::uint8_t>& datagram,
                        UdpPeer& from) const {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  const ssize_t length = recvfrom(socket_, buffer.data(), buffer.size(), MSG_DONTWAIT,
                                  reinterpret_cast<sockaddr*>(&address), &size);
  if (length == -1) {
    return false;
  }
  datagram = buffer.first(static_cast<std::size_t>(length));
  from = ToPeer(address);
  return true;
}

}  // namespace kestrelbridge
