#include "gstreamer/waiting.h"

#include <string>
#include <utility>

#include "gstreamer/debug_category.h"
#include "kestrelbridge/frame_block.h"
#include "tools/common/quiet_ring.h"

namespace kestrelbridge::gstreamer {
namespace {

using namespace std::chrono_literals;

constexpr std::chrono::seconds kQuietAfter = 1s;
constexpr std::chrono::seconds kKeyframeMissedAfter = 2s;

constexpr char kNoRing[] = "no-ring";
constexpr char kNoPermission[] = "no-permission";
constexpr char kNoUnits[] = "no-units";
constexpr char kNoKeyframe[] = "no-keyframe";

// Null while it is too early to say so.
const char* ReasonOf(RingState state, bool skips, std::chrono::nanoseconds length) {
  switch (state) {
    case RingState::kAbsent:
      return kNoRing;
    case RingState::kForbidden:
      return kNoPermission;
    case RingState::kQuiet:
      if (skips) {
        return length >= kKeyframeMissedAfter ? kNoKeyframe : nullptr;
      }
      return length >= kQuietAfter ? kNoUnits : nullptr;
    default:
      return nullptr;
  }
}

std::string TextOf(const char* reason) {
  const std::string ring = std::string("/dev/shm/") + kFrameBlockName;
  if (reason == kNoRing) {
    return "there is no frame ring yet (" + ring +
           "): is the daemon running? (systemctl status kestrelbridge)";
  }
  if (reason == kNoPermission) {
    return "this user may not read " + ring +
           "; sudo adduser $USER kestrelbridge, and log in again";
  }
  if (reason == kNoKeyframe) {
    return "access units come, but no keyframe among them yet";
  }
  return "no access unit comes: " + tools::WhyTheRingIsQuiet(kFrameBlockName);
}

}  // namespace

void Waiting::Note(GstElement* element, RingState state, bool skips) {
  const char* reason = ReasonOf(state, skips, length());
  if (reason == nullptr || reason == reason_) {
    return;
  }
  reason_ = reason;
  const std::string text = TextOf(reason);
  GST_WARNING_OBJECT(element, "waiting: %s", text.c_str());
  gst_element_post_message(
      element, gst_message_new_element(
                   GST_OBJECT(element),
                   gst_structure_new("kestrelbridge-waiting", "reason", G_TYPE_STRING, reason,
                                     "text", G_TYPE_STRING, text.c_str(), nullptr)));
}

void Waiting::End(GstElement* element) {
  since_ = Clock::now();
  if (std::exchange(reason_, nullptr) == nullptr) {
    return;
  }
  GST_INFO_OBJECT(element, "access units come again");
  gst_element_post_message(
      element, gst_message_new_element(GST_OBJECT(element),
                                       gst_structure_new_empty("kestrelbridge-streaming")));
}

}  // namespace kestrelbridge::gstreamer
