#include "tools/common/local_socket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>

namespace kestrelbridge::tools {

bool LocalSocket::Connect(const char* path) {
  Close();
  socket_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
  if (connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    return true;
  }
  const int error = errno;
  Close();
  errno = error;
  return false;
}

bool LocalSocket::Send(std::span<const std::uint8_t> message) const {
  return send(socket_, message.data(), message.size(), MSG_NOSIGNAL) != -1;
}

std::span<const std::uint8_t> LocalSocket::Receive(std::span<std::uint8_t> buffer) {
  const ssize_t length = recv(socket_, buffer.data(), buffer.size(), MSG_DONTWAIT);
  if (length > 0) {
    return buffer.first(static_cast<std::size_t>(length));
  }
  if (length == 0 || (errno != EAGAIN && errno != EINTR)) {
    Close();
  }
  return {};
}

void LocalSocket::Close() {
  if (socket_ != -1) {
    close(socket_);
  }
  socket_ = -1;
}

}  // namespace kestrelbridge::tools
