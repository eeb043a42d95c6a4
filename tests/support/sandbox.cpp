#include "support/sandbox.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "base/text_file.h"

namespace kestrelbridge::test {
namespace {

bool Refused(const char* action) {
  std::fprintf(stderr,
               "Cannot %s: %s\n"
               "The tests run in namespaces of their own and this kernel, or this container, does "
               "not allow them.\nRun as root, or allow user namespaces (see "
               "/proc/sys/user/max_user_namespaces).\n",
               action, std::strerror(errno));
  return false;
}

// To itself, this user becomes root.
bool MapUserToRoot(uid_t user, gid_t group) {
  return WriteTextFile("/proc/self/setgroups", "deny") == 0 &&
         WriteTextFile("/proc/self/uid_map", "0 " + std::to_string(user) + " 1") == 0 &&
         WriteTextFile("/proc/self/gid_map", "0 " + std::to_string(group) + " 1") == 0;
}

bool EnterNamespaces() {
  constexpr int kNamespaces = CLONE_NEWNET | CLONE_NEWNS;
  const uid_t user = geteuid();
  const gid_t group = getegid();
  if (user == 0 && unshare(kNamespaces) == 0) {
    return true;
  }
  return unshare(CLONE_NEWUSER | kNamespaces) == 0 && MapUserToRoot(user, group);
}

bool MountPrivateFolders() {
  constexpr unsigned long kFlags = MS_NOSUID | MS_NODEV;
  return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("tmpfs", "/run", "tmpfs", kFlags, "mode=0755") == 0 &&
         mount("tmpfs", "/dev/shm", "tmpfs", kFlags, "mode=1777,size=256m") == 0 &&
         mkdir("/run/kestrelbridge", 0755) == 0;
}

ifreq InterfaceRequest(const char* name) {
  ifreq request{};
  std::snprintf(request.ifr_name, sizeof request.ifr_name, "%s", name);
  return request;
}

ifreq AddressRequest(const char* name, const char* text) {
  ifreq request = InterfaceRequest(name);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  inet_pton(AF_INET, text, &address.sin_addr);
  std::memcpy(&request.ifr_addr, &address, sizeof address);
  return request;
}

bool SetUpLoopback() {
  const int control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq up = InterfaceRequest("lo");
  up.ifr_flags = IFF_UP | IFF_RUNNING;
  // A labelled address comes beside 127.0.0.1 instead of replacing it.
  ifreq address = AddressRequest("lo:camera", kCameraAddress);
  ifreq mask = AddressRequest("lo:camera", "255.255.255.255");
  const bool done = control != -1 && ioctl(control, SIOCSIFFLAGS, &up) == 0 &&
                    ioctl(control, SIOCSIFADDR, &address) == 0 &&
                    ioctl(control, SIOCSIFNETMASK, &mask) == 0;
  const int reason = errno;
  close(control);
  errno = reason;
  return done;
}

}  // namespace

bool EnterSandbox() {
  if (!EnterNamespaces()) {
    return Refused("enter namespaces");
  }
  if (!MountPrivateFolders()) {
    return Refused("mount a private /run and /dev/shm");
  }
  if (!SetUpLoopback()) {
    return Refused("set up the private loopback");
  }
  return true;
}

}  // namespace kestrelbridge::test
