// Caps of the stream, and which of its two forms the element after ours wants.
#pragma once

#include <gst/gst.h>

#include "gstreamer/unit_source.h"

namespace kestrelbridge::gstreamer {

enum class StreamFormat { kByteStream, kAvc };

// What the pad can offer at all; a new reference.
GstCaps* TemplateCaps();

// The first form that the peer takes of those that we have; byte-stream without a peer.
StreamFormat ChooseFormat(GstPad* pad);

// Complete caps of the stream; without sets but for size, profile and so on. A new reference.
GstCaps* StreamCaps(StreamFormat format, const ParameterSets* sets);

}  // namespace kestrelbridge::gstreamer
