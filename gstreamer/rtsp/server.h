// The RTSP server: one picture, one pipeline, any number of viewers up to a bound.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "gstreamer/rtsp/user.h"

namespace kestrelbridge::rtsp {

struct ServerOptions {
  std::string address;              // dotted decimal
  std::uint16_t port = 0;           // 0: a free one
  std::optional<User> user;         // nothing: whoever reaches the port may look
  int viewers = 0;                  // at once
  std::uint32_t session_timeout_s;  // a viewer who is not heard of for so long is gone
};

// Serves until SIGINT or SIGTERM. Throws ToolError when it cannot start. The main thread, once.
void RunServer(const ServerOptions& options);

}  // namespace kestrelbridge::rtsp
