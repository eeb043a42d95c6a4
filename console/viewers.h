// The viewers of the picture and of the state, from the upgrade of their connection on.
#pragma once

#include <string_view>

#include "console/server_record.h"

namespace kestrelbridge::console {

// The headers of what wants to be a WebSocket are there. Returns what the library's callback
// returns: 0 lets it become one.
int OnUpgrade(Server& server, Connection& connection, const char* protocol);

void OnEstablished(Server& server, Connection& viewer);

// He takes something. Not 0: his connection ends.
int OnViewerWritable(Server& server, Connection& viewer);

// A message of his, or a piece of one.
void OnMessage(Server& server, Connection& viewer, std::string_view piece);

// He is gone.
void OnViewerGone(Server& server, const Connection& viewer);

}  // namespace kestrelbridge::console
