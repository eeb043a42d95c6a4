// kestrelbridgesrc, the GStreamer element. What it does stands in the files beside this one; this
// is its skin.
#pragma once

#include <gst/base/gstpushsrc.h>

namespace kestrelbridge::gstreamer {

inline constexpr char kElementName[] = "kestrelbridgesrc";

GType ElementType();

}  // namespace kestrelbridge::gstreamer
