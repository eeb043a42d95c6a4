// The main application's commands: "!" and a JSON object in one datagram, such as
//   !{"cmd":"camera","param":"mode","value":"video"}
#pragma once

namespace kestrelbridge {

// Runs the camera operation that one datagram's text asks for. Anything but a sound command does
// nothing; nobody is answered. The command endpoint's receive thread, one text at a time.
void DispatchAppCommand(const char* text);

}  // namespace kestrelbridge
