// Where a viewer can begin.
#pragma once

#include <gst/gst.h>

namespace kestrelbridge::rtsp {

// Whether this RTP packet of H.264 (RFC 6184) brings a sequence parameter set, which the payloader
// sends before each keyframe: alone, or in an aggregate. Pure.
[[nodiscard]] bool OpensKeyframe(GstBuffer* packet);

}  // namespace kestrelbridge::rtsp
