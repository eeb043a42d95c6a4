// What stands between the stream, whose packets are the same for all, and one viewer.
//
// The library hands every packet to all who have joined, from the middle of the picture on, and
// lets what a viewer does not take pile up for ten seconds. Here each viewer has a gate and a short
// queue of his own instead:
//
//            joins          keyframe begins           queue too long or too old
//   (closed) -----> closed ----------------> open ------------------------------> closed
//                   drops all                passes packets on                    queue is emptied
//
// So every viewer starts with a keyframe, and one who is slow loses whole groups of pictures
// instead of seeing the past. Nobody waits for him: what his socket does not take stays in his
// queue.
#pragma once

#include <gst/rtsp-server/rtsp-server.h>

namespace kestrelbridge::rtsp {

// Takes the place of the transport that the request has just set up. From "setup-request".
void AdmitViewer(GstRTSPContext* context);

// When he goes on, he begins with a keyframe again. From "pause-request".
void PauseViewer(GstRTSPContext* context);

}  // namespace kestrelbridge::rtsp
