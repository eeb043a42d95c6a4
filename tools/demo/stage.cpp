#include "tools/demo/stage.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "tools/common/tool_error.h"

namespace kestrelbridge::tools {
namespace {

[[noreturn]] void Refuse(const std::string& what) {
  throw ToolError("no namespaces of our own can be had (" + what + ": " + std::strerror(errno) +
                  "); as root: sudo kestrelctl demo");
}

void BecomeRootWithin(uid_t user, gid_t group) {
  std::ofstream("/proc/self/setgroups") << "deny";
  std::ofstream("/proc/self/uid_map") << "0 " + std::to_string(user) + " 1";
  std::ofstream("/proc/self/gid_map") << "0 " + std::to_string(group) + " 1";
}

void RaiseLoopback() {
  const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  const bool is_up = ioctl(socket, SIOCSIFFLAGS, &request) == 0;
  close(socket);
  if (!is_up) {
    Refuse("loopback");
  }
}

void MountEmpty(const char* folder) {
  if (mount("tmpfs", folder, "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777") != 0) {
    Refuse(folder);
  }
}

}  // namespace

void EnterStage() {
  const uid_t user = geteuid();
  const gid_t group = getegid();
  if (unshare(CLONE_NEWNET | CLONE_NEWNS | (user == 0 ? 0 : CLONE_NEWUSER)) != 0) {
    Refuse("unshare");
  }
  if (user != 0) {
    BecomeRootWithin(user, group);
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    Refuse("/");
  }
  MountEmpty("/dev/shm");
  MountEmpty("/run");
  std::filesystem::create_directory("/run/kestrelbridge");
  RaiseLoopback();
}

}  // namespace kestrelbridge::tools
