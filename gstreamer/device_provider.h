// Lists the ring as a camera: for gst-device-monitor-1.0 and programs that offer one's cameras.
#pragma once

#include <gst/gst.h>

namespace kestrelbridge::gstreamer {

// One device of the class Source/Video where there is a ring that this user may read.
GType DeviceProviderType();

}  // namespace kestrelbridge::gstreamer
