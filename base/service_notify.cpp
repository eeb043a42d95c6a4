#include "base/service_notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>

namespace kestrelbridge {

bool NotifyService(std::string_view state) {
  const char* variable = std::getenv("NOTIFY_SOCKET");
  if (variable == nullptr) {
    return true;
  }
  const std::string_view name = variable;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (name.empty() || name.size() >= sizeof address.sun_path) {
    return false;
  }
  std::ranges::copy(name, address.sun_path);
  if (name[0] == '@') {
    address.sun_path[0] = '\0';  // a name of the kernel's own, in no folder
  }
  // An abstract name ends where the address does.
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (socket == -1) {
    return false;
  }
  const bool taken = sendto(socket, state.data(), state.size(), MSG_NOSIGNAL,
                            reinterpret_cast<const sockaddr*>(&address), size) != -1;
  close(socket);
  return taken;
}

}  // namespace kestrelbridge
