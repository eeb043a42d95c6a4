// The share itself: telemetry from the daemon to everybody, commands from everybody to the daemon.
//
//                             UDP, unchanged            +------------------+
//              UDP 5001      +------------------------> | main application |
//   +--------+ ------------> | share | <-------------- | UDP 5000         |
//   | daemon |               |       |    commands      +------------------+
//   +--------+ <------------ |       | ---> FOLDER/telemetry   a record a message, to each consumer
//               commands     |       | <--- FOLDER/control     a command a message
//
// One thread, one loop, no socket that waits: nobody's slowness is anybody else's. A consumer that
// does not read loses its own records.
#pragma once

#include <string>

#include "net/socket_address.h"

namespace kestrelbridge::share {

struct ShareOptions {
  UdpPeer listen{};    // where the daemon sends its telemetry
  UdpPeer main_app{};  // where the main application listens
  std::string folder{};
  std::string group{};  // that may use the control socket; empty: the process's own
};

// Opens all sockets and relays until a stop signal comes; removes its socket files then. Throws
// StartError (share/sockets.h) when something cannot be opened.
void RunShare(const ShareOptions& options);

}  // namespace kestrelbridge::share
