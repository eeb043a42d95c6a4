#include "gstreamer/ring_stage.h"

#include "end_to_end/daemon_stage.h"
#include "kestrelbridge/frame_block.h"
#include "tools/camera/clip.h"
#include "video/frame_buffers.h"

namespace kestrelbridge::test {

const std::vector<Unit>& ClipUnits() {
  static const std::vector<Unit> units = [] {
    const std::vector<std::uint8_t> clip = tools::ReadClip(kTestPattern);
    std::vector<Unit> cut;
    for (const tools::AccessUnit unit : tools::SplitAccessUnits(clip)) {
      cut.emplace_back(unit.begin(), unit.end());
    }
    return cut;
  }();
  return units;
}

void StartGstreamer() {
  if (gst_is_initialized() != FALSE) {
    return;
  }
  // The list of all plugins takes a while to make: for all tests together.
  setenv("GST_REGISTRY", KESTRELBRIDGE_BIN_DIR "/gstreamer-registry", 1);
  gst_init(nullptr, nullptr);
  GError* error = nullptr;
  GstPlugin* plugin = gst_plugin_load_file(KESTRELBRIDGE_GSTREAMER_PLUGIN, &error);
  ASSERT_NE(plugin, nullptr) << error->message;
  gst_object_unref(plugin);
}

void RingStage::SetUp() { ASSERT_NO_FATAL_FAILURE(StartGstreamer()); }

void RingStage::StartDaemon() { ASSERT_EQ(InitFrameBuffers(), 0); }

void RingStage::Publish(int count) {
  const std::vector<Unit>& units = ClipUnits();
  for (int i = 0; i < count; ++i) {
    PublishVideoUnit(units[static_cast<std::size_t>(next_++) % units.size()]);
  }
}

}  // namespace kestrelbridge::test
