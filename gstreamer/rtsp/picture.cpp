#include "gstreamer/rtsp/picture.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <vector>

#include "kestrelbridge/frame_block.h"
#include "tools/common/quiet_ring.h"
#include "tools/common/tool_error.h"

namespace kestrelbridge::rtsp {
namespace {

struct NeededElement {
  const char* name;
  const char* package;  // Debian's
};
constexpr NeededElement kNeededElements[] = {
    {"kestrelbridgesrc", "gstreamer1.0-kestrelbridge"},
    {"rtph264pay", "gstreamer1.0-plugins-good"},
    {"rtpbin", "gstreamer1.0-plugins-good"},
    {"udpsrc", "gstreamer1.0-plugins-good"},
    {"appsink", "gstreamer1.0-plugins-base"},
};

constexpr std::chrono::seconds kPatience{2};

}  // namespace

// config-interval=-1: every keyframe comes with its parameter sets, so that a viewer who starts
// with it needs nothing from before. The time-out, in nanoseconds, is for the start alone.
std::string PictureLaunch() {
  return "( kestrelbridgesrc name=picture timeout=3000000000 ! "
         "rtph264pay name=pay0 pt=96 config-interval=-1 aggregate-mode=zero-latency )";
}

void WaitForEver(GstElement* pipeline) {
  GstElement* const source = gst_bin_get_by_name(GST_BIN(pipeline), "picture");
  if (source != nullptr) {
    g_object_set(source, "timeout", guint64{0}, nullptr);
    gst_object_unref(source);
  }
}

void ExpectElements() {
  for (const NeededElement& needed : kNeededElements) {
    GstElementFactory* const factory = gst_element_factory_find(needed.name);
    if (factory == nullptr) {
      throw tools::ToolError(std::string("GStreamer has no element ") + needed.name +
                             ": apt-get install " + needed.package);
    }
    gst_object_unref(factory);
  }
}

std::string WhyNoPicture() {
  FrameBlockMapping mapping;
  if (!mapping.Open()) {
    const int error = errno;
    if (error == EACCES) {
      return "this user may not read the ring (adduser USER kestrelbridge)";
    }
    return error == ENOENT ? "there is no ring: kestrelbridge has not been started"
                           : std::string("the ring cannot be opened: ") + std::strerror(error);
  }
  FrameBlockReader reader(mapping.data());
  const auto end = std::chrono::steady_clock::now() + kPatience;
  std::vector<std::uint8_t> unit;
  while (!reader.Next(unit)) {
    const auto left = end - std::chrono::steady_clock::now();
    if (left <= left.zero()) {
      return tools::WhyTheRingIsQuiet(kFrameBlockName);
    }
    reader.Wait(left);
  }
  return {};
}

}  // namespace kestrelbridge::rtsp
