#include "tools/common/udp_socket.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "net/socket_buffers.h"
#include "tools/common/host_port.h"
#include "tools/common/tool_error.h"

namespace kestrelbridge::tools {
namespace {

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
  RequestReceiveBuffer(socket);
  RequestSendBuffer(socket);
  const sockaddr_in address = ToSockaddr(local);
  if (bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int error = errno;
    close(socket);
    RefuseAddress(local, error);
  }
  socket_ = socket;
}

UdpSocket::~UdpSocket() { close(socket_); }

UdpPeer UdpSocket::Local() const { return LocalAddress(socket_); }

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

}  // namespace kestrelbridge::tools
