// GST_DEBUG=kestrelbridgesrc:4 shows what the element does.
#pragma once

#include <gst/gst.h>

namespace kestrelbridge::gstreamer {

GstDebugCategory* DebugCategory();

}  // namespace kestrelbridge::gstreamer

#define GST_CAT_DEFAULT (kestrelbridge::gstreamer::DebugCategory())
