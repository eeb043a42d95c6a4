#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

#include "base/run_paths.h"
#include "base/shared_memory.h"
#include "base/text_file.h"
#include "kestrelbridge/frame_block.h"
#include "tools/common/foreign_text.h"
#include "tools/common/tool_error.h"
#include "tools/doctor/finding.h"

namespace kestrelbridge::tools {
namespace {

std::vector<std::string> ArgumentsOf(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/cmdline", std::ios::binary);
  std::vector<std::string> arguments;
  for (std::string argument; std::getline(file, argument, '\0');) {
    arguments.push_back(argument);
  }
  return arguments;
}

// As the daemon was started: --host=X, --host X, -h X, -hX.
std::string HostOption(const std::vector<std::string>& arguments, const std::string& otherwise) {
  std::string host = otherwise;
  for (std::size_t i = 1; i < arguments.size(); ++i) {
    const std::string& word = arguments[i];
    const bool has_next = i + 1 < arguments.size();
    if (word.starts_with("--host=")) {
      host = word.substr(7);
    } else if ((word == "--host" || word == "-h") && has_next) {
      host = arguments[++i];
    } else if (word.starts_with("-h")) {
      host = word.substr(2);
    }
  }
  return host;
}

// From which address of ours the camera is reached. Nothing is sent for that.
in_addr_t OwnAddressTowards(in_addr_t camera) {
  const int probe = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(9);
  address.sin_addr.s_addr = camera;
  sockaddr_in own{};
  socklen_t size = sizeof own;
  const bool has_way = connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                       getsockname(probe, reinterpret_cast<sockaddr*>(&own), &size) == 0;
  close(probe);
  return has_way ? own.sin_addr.s_addr : INADDR_ANY;
}

void FindInterface(Surroundings& around) {
  in_addr camera{};
  if (inet_pton(AF_INET, around.camera_host.c_str(), &camera) != 1) {
    return;
  }
  const in_addr_t own = OwnAddressTowards(camera.s_addr);
  ifaddrs* interfaces = nullptr;
  if (own == INADDR_ANY || getifaddrs(&interfaces) != 0) {
    return;
  }
  const auto ipv4 = [](const sockaddr* address) {
    sockaddr_in copy{};
    std::memcpy(&copy, address, sizeof copy);
    return copy.sin_addr.s_addr;
  };
  for (const ifaddrs* entry = interfaces; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET ||
        entry->ifa_netmask == nullptr || ipv4(entry->ifa_addr) != own) {
      continue;
    }
    around.camera_interface = PrintableText(entry->ifa_name);
    const in_addr_t mask = ipv4(entry->ifa_netmask);
    around.camera_is_near = (own & mask) == (camera.s_addr & mask);
  }
  freeifaddrs(interfaces);
}

}  // namespace

std::string FirstLine(const char* path) {
  std::array<char, 200> text{};
  ReadTextFile(path, text);
  const std::string whole = text.data();
  return PrintableText(whole.substr(0, whole.find('\n')));
}

Surroundings LookAround() {
  Surroundings around;
  around.daemon = HolderOfBlock(kFrameBlockName);
  if (around.daemon != 0) {
    around.camera_host = PrintableText(HostOption(ArgumentsOf(around.daemon), around.camera_host));
  }
  FindInterface(around);
  try {
    MetricsReading reading = ReadMetrics(kMetricsPath);
    if (!Staleness(reading, MetricsReading::Time::clock::now())) {
      around.metrics = std::move(reading);
    }
  } catch (const ToolError&) {
    // That there is none is a finding of its own.
  }
  around.access_point = FirstLine(kAccessPointInterfacePath);
  return around;
}

}  // namespace kestrelbridge::tools
