#include "share/sockets.h"

#include <arpa/inet.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kestrelbridge::share {
namespace {

constexpr int kBacklog = 256;

std::string PlaceText(UdpPeer peer) {
  char address[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &peer.address, address, sizeof address);
  return std::string(address) + ":" + std::to_string(peer.port);
}

sockaddr_un ToSockaddr(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    throw StartError(path + ": longer than the " + std::to_string(sizeof address.sun_path - 1) +
                     " characters that a socket's path may have; choose another --folder");
  }
  path.copy(address.sun_path, path.size());
  return address;
}

OwnedDescriptor LocalSocket() {
  OwnedDescriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (socket.get() == -1) {
    throw StartError(std::string("cannot open a local socket: ") + std::strerror(errno));
  }
  return socket;
}

// Takes away what an earlier run left at the path; refuses to touch anything else.
void ClearPath(const std::string& path, const sockaddr_un& address) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) {
    return;  // nothing there, or bind will say what is wrong
  }
  if (!S_ISSOCK(status.st_mode)) {
    throw StartError(path + " is no socket; remove it, or choose another --folder");
  }
  const OwnedDescriptor trial = LocalSocket();
  const auto* const to = reinterpret_cast<const sockaddr*>(&address);
  if (connect(trial.get(), to, sizeof address) == 0 || errno == EAGAIN) {
    throw StartError(path + ": another kestrelshare listens there; end it, or choose another " +
                     "--folder");
  }
  if (errno == ECONNREFUSED) {
    unlink(path.c_str());
  }
}

void GiveToGroup(const std::string& path, const std::string& group) {
  if (group.empty()) {
    return;
  }
  const struct group* const entry = getgrnam(group.c_str());
  if (entry == nullptr) {
    std::fprintf(stderr, "No group \"%s\": %s is for this user and its group alone\n",
                 group.c_str(), path.c_str());
  } else if (entry->gr_gid != getegid() &&
             lchown(path.c_str(), static_cast<uid_t>(-1), entry->gr_gid) != 0) {
    std::fprintf(stderr, "Cannot give %s to the group \"%s\": %s\n", path.c_str(), group.c_str(),
                 std::strerror(errno));
  }
}

}  // namespace

OwnedDescriptor OpenUdpSocket(UdpPeer local) {
  OwnedDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (socket.get() == -1) {
    throw StartError(std::string("cannot open a UDP socket: ") + std::strerror(errno));
  }
  const sockaddr_in address = kestrelbridge::ToSockaddr(local);
  if (bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw StartError("cannot listen on " + PlaceText(local) + ": " + std::strerror(errno) +
                     (errno == EADDRINUSE ? " (\"ss -ulnp\" names the program)" : ""));
  }
  return socket;
}

OwnedDescriptor ListenAt(const std::string& path, mode_t mode, const std::string& group) {
  const sockaddr_un address = ToSockaddr(path);
  ClearPath(path, address);
  OwnedDescriptor socket = LocalSocket();
  // Linux gives the socket's file the mode of its descriptor: at no moment may others connect.
  const mode_t old_mask = umask(0);
  fchmod(socket.get(), mode);
  const bool bound =
      bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  const int error = errno;
  umask(old_mask);
  if (!bound) {
    throw StartError("cannot make the socket " + path + ": " + std::strerror(error) +
                     "; its folder must exist and be writable for this user");
  }
  GiveToGroup(path, group);
  if (listen(socket.get(), kBacklog) != 0) {
    throw StartError("cannot listen at " + path + ": " + std::strerror(errno));
  }
  return socket;
}

}  // namespace kestrelbridge::share
