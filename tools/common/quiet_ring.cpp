#include "tools/common/quiet_ring.h"

#include "base/run_paths.h"
#include "base/shared_memory.h"
#include "tools/common/metrics_reading.h"

namespace kestrelbridge::tools {

std::string WhyTheRingIsQuiet(const char* block_name) {
  if (HolderOfBlock(block_name) == 0) {
    return "no daemon publishes there (systemctl status kestrelbridge)";
  }
  const auto metrics = FreshMetrics();
  if (!metrics) {
    return "a daemon holds the ring, and tells nothing in " + std::string(kMetricsPath);
  }
  if (metrics->Value("kestrelbridge_link_up", R"(link="camera")").value_or(0) == 0) {
    return "the daemon hears no camera: is it on, and the box in its Wi-Fi? (kestrelctl doctor)";
  }
  const auto video = metrics->Value("kestrelbridge_camera_datagrams_total", R"(kind="video")");
  if (video.value_or(0) == 0) {
    return "the camera is there, and sends no video yet";
  }
  return "the camera sends video, of which no whole access unit comes (kestrelctl stats)";
}

}  // namespace kestrelbridge::tools
