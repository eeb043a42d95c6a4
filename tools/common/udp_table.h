// The kernel's table of UDP sockets.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrelbridge::tools {

struct UdpTableRow {
  std::uint16_t port = 0;          // that it is bound to
  std::uint64_t queued_bytes = 0;  // received, not yet read
  std::uint64_t socket = 0;        // its number, as in /proc/PID/fd
  std::uint64_t drops = 0;         // datagrams, for want of room, since it was opened
};

// A path such as /proc/net/udp, or that of a process in another network namespace. Empty when it
// cannot be read.
std::vector<UdpTableRow> ReadUdpTable(const std::string& path);

}  // namespace kestrelbridge::tools
