// The simulated camera's state, as commands change it.

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "camera/command_frame_scanner.h"
#include "state/status_decoding.h"
#include "state/vocabulary.h"
#include "support/pushes.h"
#include "tools/camera/camera_assignment.h"
#include "tools/camera/camera_pushes.h"
#include "tools/camera/obeyed_commands.h"

namespace kestrelbridge::test {
namespace {

// What the main application would read of the model's pushes.
std::string WordOf(const tools::CameraModel& model, std::string_view key) {
  ClearCameraState();
  std::uint16_t sequence = 0;
  ScanCommandFrames(tools::BuildPushes(model, tools::Histogram{}, sequence), DecodeSoundFrame);
  return test::Item(test::TelemetryText(), key);
}

// A command frame as the daemon's, from its sender on: sender, receiver, set and id.
Bytes Command(const Bytes& address, const Bytes& payload) {
  Bytes frame = test::Push(payload.size() + kFrameOverhead);
  frame[4] = address[0];
  frame[5] = address[1];
  frame[8] = 0x40;
  frame[9] = address[2];
  frame[10] = address[3];
  test::Put(frame, 0, payload);
  return frame;
}

TEST(ObeyedCommands, EveryCodeThatTheCameraHasIsObeyedAndNoOther) {
  struct Row {
    Bytes address;
    Bytes before;  // payload before the code
    Bytes after;
    const Setting* setting;
    const char* key;
  };
  const Row rows[] = {
      {{0x09, 0x01, 0x02, 0x10}, {}, {}, &kCameraMode, "camera_mode"},
      {{0x02, 0x01, 0x02, 0x1E}, {}, {0x00}, &kImageMode, "image_mode"},
      {{0x02, 0x01, 0x02, 0x2A}, {}, {}, &kIso, "iso_set"},
      {{0x02, 0x01, 0x02, 0x2E}, {}, {}, &kEv, "ev"},
      {{0x02, 0x01, 0x02, 0x2C}, {}, {0x30}, &kWhiteBalance, "wb"},
      {{0x02, 0x01, 0x02, 0x42}, {}, {}, &kColorMode, "color_mode"},
      {{0x02, 0x01, 0x02, 0x18}, {}, {0x03, 0, 0, 0}, &kResolution, "resolution"},
      {{0x02, 0x01, 0x02, 0x18}, {0x0A}, {0, 0, 0}, &kFramerate, "framerate"},
      {{0x02, 0x01, 0x02, 0xAF}, {}, {0x03}, &kResolution, "resolution"},
      {{0x02, 0x01, 0x02, 0xAF}, {0x0A}, {}, &kFramerate, "framerate"},
      {{0x02, 0x01, 0x02, 0x12}, {0x00}, {}, &kAspectRatio, "ratio"},
      {{0x02, 0x01, 0x02, 0x16}, {}, {}, &kShotMode, "shot_mode"},
      {{0x02, 0x01, 0x02, 0x46}, {}, {}, &kAntiFlicker, "antiflicker"},
      {{0x02, 0x01, 0x02, 0x66}, {}, {}, &kVideoStandard, "video_std"},
  };
  const tools::CameraModel start = tools::StartModel({});
  for (const Row& row : rows) {
    for (int code = 0; code < 256; ++code) {
      Bytes payload = row.before;
      payload.push_back(static_cast<std::uint8_t>(code));
      payload.insert(payload.end(), row.after.begin(), row.after.end());
      tools::CameraModel model = start;
      const std::string line = tools::ObeyCommand(Command(row.address, payload), start, {}, model);
      const bool ignored = line.find("ignored") != std::string::npos;
      const SettingWord* known = nullptr;
      for (const SettingWord& word : row.setting->words) {
        known = word.code == code ? &word : known;
      }
      ASSERT_EQ(ignored, known == nullptr) << line;
      if (known != nullptr) {
        ASSERT_EQ(WordOf(model, row.key), known->reported) << line;
      } else {
        ASSERT_TRUE(model.status == start.status && model.settings == start.settings) << line;
      }
    }
  }
}

}  // namespace
}  // namespace kestrelbridge::test
