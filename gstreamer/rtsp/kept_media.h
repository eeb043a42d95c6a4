// Keeps the shared pipeline for some seconds after its last viewer has left.
//
// The library takes it apart then, and while it does, tells whoever asks for it that there is none.
// But a player that goes and comes back at once is usual: so it tries UDP first and its connection
// next.
#pragma once

#include <gst/rtsp-server/rtsp-server.h>

namespace kestrelbridge::rtsp {

// Somebody is going to ask for the picture: what is kept now stays for some seconds, or is gone
// when this returns. Any thread.
void ExpectDemand();

// Keeps this one, which is prepared. Any thread.
void KeepMedia(GstRTSPMedia* media);

// Lets go of it when nobody has wanted it for some seconds. The main thread, once in a while.
void LetGoOfUnwanted(bool has_viewers);

}  // namespace kestrelbridge::rtsp
