// What the server does when something has come from the box, and with each second.
#pragma once

#include "console/server_record.h"

namespace kestrelbridge::console {

// Takes what the threads have brought, and tells everybody.
void TakeNews(Server& server);

// Tells each viewer of the picture why he sees none, where that has changed.
void TellReasons(Server& server);

void StartTicking(Server& server);
void StopTicking(Server& server);

// A command waits for its proof: its time runs.
void WatchCommands(Server& server);

}  // namespace kestrelbridge::console
