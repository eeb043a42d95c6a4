#include "gstreamer/rtsp/kept_media.h"

#include <chrono>
#include <mutex>

namespace kestrelbridge::rtsp {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kKeptFor{5};

// Never destroyed.
struct Kept {
  std::mutex mutex;
  GstRTSPMedia* media = nullptr;
  Clock::time_point last_wanted;
};

Kept& GetKept() {
  static auto* const kept = new Kept;
  return *kept;
}

void LetGo(Kept& kept) {
  if (kept.media != nullptr) {
    gst_rtsp_media_unprepare(kept.media);
    g_object_unref(kept.media);
    kept.media = nullptr;
  }
}

// One that failed is no use to the next viewer.
void LetGoOfFailed(Kept& kept) {
  if (kept.media != nullptr &&
      gst_rtsp_media_get_status(kept.media) != GST_RTSP_MEDIA_STATUS_PREPARED) {
    LetGo(kept);
  }
}

}  // namespace

void ExpectDemand() {
  Kept& kept = GetKept();
  const std::lock_guard lock(kept.mutex);
  LetGoOfFailed(kept);
  kept.last_wanted = Clock::now();
}

void KeepMedia(GstRTSPMedia* media) {
  Kept& kept = GetKept();
  const std::lock_guard lock(kept.mutex);
  kept.last_wanted = Clock::now();
  if (kept.media != media) {
    LetGo(kept);
    if (gst_rtsp_media_prepare(media, nullptr)) {  // it counts
      kept.media = GST_RTSP_MEDIA(g_object_ref(media));
    }
  }
}

void LetGoOfUnwanted(bool has_viewers) {
  Kept& kept = GetKept();
  const std::lock_guard lock(kept.mutex);
  if (has_viewers) {
    kept.last_wanted = Clock::now();
  } else if (Clock::now() - kept.last_wanted > kKeptFor) {
    LetGo(kept);
  }
}

}  // namespace kestrelbridge::rtsp
