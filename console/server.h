// The console's server: HTTP and WebSockets on one thread, for any number of viewers.
//
//            ring thread: units ------> +------+ <------> WS /video   a viewer each, at his own
//            place
//   feed thread: telemetry, counters -> | loop | <------> WS /state
//              commands <-------------- |      | -------> HTTP       (http_answers.h)
//                                       +------+
//
// Messages of /video and /state: docs/console.md.
#pragma once

#include <string>
#include <vector>

#include "net/udp_endpoint.h"

namespace kestrelbridge::console {

struct ConsoleOptions {
  UdpPeer listen{};           // TCP; port 0: a free one
  std::string password = {};  // empty: none is needed
  bool view_only = false;
  std::vector<std::string> allowed_hosts = {};
  std::string certificate = {};  // files; empty: no TLS
  std::string key = {};
};

// Serves until a stop signal comes. Prints the page's address. Throws ToolError when it cannot
// start.
void RunConsole(const ConsoleOptions& options);

}  // namespace kestrelbridge::console
