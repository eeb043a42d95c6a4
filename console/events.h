// The library's events, and what answers each of them.
#pragma once

#include <libwebsockets.h>

#include <cstddef>

namespace kestrelbridge::console {

// The callback of the server's one protocol; the context's user is the Server.
int OnEvent(lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t length);

inline constexpr std::size_t kMostConnections = 256;

}  // namespace kestrelbridge::console
