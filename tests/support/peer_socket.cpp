#include "support/peer_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace kestrelbridge::test {
namespace {

constexpr std::size_t kLongestDatagram = 65'535;

sockaddr_in ToSockaddr(const UdpAddress& address) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_port = htons(address.port);
  if (inet_pton(AF_INET, address.host.c_str(), &result.sin_addr) != 1) {
    throw std::invalid_argument("no IPv4 address: " + address.host);
  }
  return result;
}

UdpAddress ToAddress(const sockaddr_in& address) {
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
  return {.host = text, .port = ntohs(address.sin_port)};
}

}  // namespace

PeerSocket::PeerSocket(const UdpAddress& local) {
  const sockaddr_in address = ToSockaddr(local);
  socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (socket_ == -1 ||
      bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int reason = errno;
    close(socket_);
    throw std::system_error(reason, std::generic_category(), "binding to " + local.host);
  }
  const int size = 4'000'000;  // a test that looks elsewhere for a while misses nothing
  setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
}

PeerSocket::~PeerSocket() { close(socket_); }

std::uint16_t PeerSocket::port() const {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

bool PeerSocket::Send(std::span<const std::uint8_t> datagram, const UdpAddress& destination) const {
  const sockaddr_in address = ToSockaddr(destination);
  return sendto(socket_, datagram.data(), datagram.size(), 0,
                reinterpret_cast<const sockaddr*>(&address),
                sizeof address) == static_cast<ssize_t>(datagram.size());
}

std::optional<ReceivedDatagram> PeerSocket::Receive(std::chrono::milliseconds patience) const {
  pollfd waiting{.fd = socket_, .events = POLLIN, .revents = 0};
  if (poll(&waiting, 1, static_cast<int>(patience.count())) <= 0) {
    return std::nullopt;
  }
  ReceivedDatagram received;
  received.bytes.resize(kLongestDatagram);
  sockaddr_in sender{};
  socklen_t size = sizeof sender;
  const ssize_t length = recvfrom(socket_, received.bytes.data(), received.bytes.size(), 0,
                                  reinterpret_cast<sockaddr*>(&sender), &size);
  if (length < 0) {
    return std::nullopt;
  }
  received.bytes.resize(static_cast<std::size_t>(length));
  received.sender = ToAddress(sender);
  return received;
}

}  // namespace kestrelbridge::test
