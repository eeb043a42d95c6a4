// A program at one of the share's local sockets.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "support/eventually.h"

namespace kestrelbridge::test {

class LocalClient {
 public:
  explicit LocalClient(const std::string& path)
      : socket_(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    connected_ = connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }
  ~LocalClient() { close(socket_); }
  LocalClient(const LocalClient&) = delete;
  LocalClient& operator=(const LocalClient&) = delete;

  [[nodiscard]] bool connected() const { return connected_; }

  [[nodiscard]] bool Send(std::span<const std::uint8_t> message) const {
    return send(socket_, message.data(), message.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(message.size());
  }

  // The next message; empty when the other end has closed, or none came in time.
  [[nodiscard]] std::vector<std::uint8_t> Receive(
      std::chrono::milliseconds patience = Patience()) const {
    pollfd descriptor = {.fd = socket_, .events = POLLIN, .revents = 0};
    std::vector<std::uint8_t> message(65'536);
    if (poll(&descriptor, 1, static_cast<int>(patience.count())) <= 0) {
      return {};
    }
    const ssize_t length = recv(socket_, message.data(), message.size(), 0);
    message.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return message;
  }

 private:
  int socket_;
  bool connected_ = false;
};

}  // namespace kestrelbridge::test
