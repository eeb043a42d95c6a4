#include "support/field_network.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>

#include "support/child_process.h"

namespace kestrelbridge {
namespace {

// iptables and ip live in folders that are root's only.
constexpr char kPath[] = "PATH=/usr/local/sbin:/usr/sbin:/sbin:/usr/local/bin:/usr/bin:/bin";

// The names of the namespaces are files in the sandbox's private /run.
std::string NamespacePath(const std::string& host) { return "/run/netns/" + host; }

// "ip netns exec" would mount a new /sys, which not every container allows; nsenter does not.
constexpr char kSetUp[] = R"(
on() { nsenter --net=/run/netns/"$@"; }
for host in camera box phone; do
  ip netns add $host
  on $host ip link set lo up
done
ip link add wlan0 netns box type veth peer name wlan0 netns camera
ip link add wlan1 netns box type veth peer name wlan0 netns phone
on camera ip address add 192.168.2.1/24 dev wlan0
on box    ip address add 192.168.2.20/24 dev wlan0
on box    ip address add 10.42.0.1/24 dev wlan1
on phone  ip address add 10.42.0.2/24 dev wlan0
on camera ip link set wlan0 up
on box    ip link set wlan0 up
on box    ip link set wlan1 up
on phone  ip link set wlan0 up
on phone  ip route add default via 10.42.0.1
on box    sh -c 'echo 1 >/proc/sys/net/ipv4/ip_forward'
)";

constexpr char kTearDown[] = "ip netns del camera; ip netns del box; ip netns del phone";

// Returns what the script complained of; empty when it ran to its end.
std::string RunScript(const char* script) {
  ChildProcess shell({"env", kPath, "sh", "-ec", script});
  return shell.WaitForExit() == ExitedWith(0) ? "" : "failed: " + shell.Error();
}

int OpenNamespace(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor == -1) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  return descriptor;
}

}  // namespace

FieldNetwork::FieldNetwork() {
  if (const std::string complaint = RunScript(kSetUp); !complaint.empty()) {
    RunScript(kTearDown);
    throw std::runtime_error("cannot set up the three hosts: " + complaint);
  }
}

FieldNetwork::~FieldNetwork() {
  if (const std::string complaint = RunScript(kTearDown); !complaint.empty()) {
    std::fprintf(stderr, "the three hosts stay: %s", complaint.c_str());
  }
}

std::vector<std::string> OnHost(const std::string& host, const std::vector<std::string>& command) {
  std::vector<std::string> there = {"nsenter", "--net=" + NamespacePath(host), "env", kPath};
  there.insert(there.end(), command.begin(), command.end());
  return there;
}

HostScope::HostScope(const std::string& host) : home_(OpenNamespace("/proc/thread-self/ns/net")) {
  const int there = OpenNamespace(NamespacePath(host));
  const bool entered = setns(there, CLONE_NEWNET) == 0;
  const int reason = errno;
  close(there);
  if (!entered) {
    close(home_);
    throw std::system_error(reason, std::generic_category(), "entering host " + host);
  }
}

HostScope::~HostScope() {
  if (setns(home_, CLONE_NEWNET) != 0) {
    std::perror("returning from a host");
  }
  close(home_);
}

}  // namespace kestrelbridge
