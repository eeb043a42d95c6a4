// The simulated camera's state: as it is set at the start, and as commands change it.

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "camera/frame_scanner.h"
#include "state/pushes.h"
#include "state/vocabulary.h"
#include "tools/camera_assignment.h"
#include "tools/camera_pushes.h"
#include "tools/obeyed_commands.h"
#include "tools/tool_error.h"

namespace kestrelbridge {
namespace {

using Assignments = std::vector<std::string>;

// What the main application would read of the model's pushes.
std::string WordOf(const CameraModel& model, std::string_view key) {
  ClearCameraState();
  std::uint16_t sequence = 0;
  ScanCommandFrames(BuildPushes(model, Histogram{}, sequence));
  return test::Item(test::TelemetryText(), key);
}

TEST(CameraAssignment, EveryWordOfEveryFieldIsTakenAndReportedBack) {
  for (const auto& fields : {kStatusPushFields, kSettingsPushFields, kBatteryPushFields}) {
    for (const PushField& field : fields) {
      const std::string name(field.name);
      if (field.setting == nullptr) {
        const char* number = name.starts_with("shutter") ? "=1/100"
                             : name == "wb_temp"         ? "=100"
                                                         : "=1";
        EXPECT_NO_THROW(StartModel(Assignments{name + number})) << name;
        continue;
      }
      for (const SettingWord& word : field.setting->words) {
        const Assignments assignment = {name + "=" + std::string(word.reported)};
        EXPECT_EQ(WordOf(StartModel(assignment), name), word.reported) << name;
      }
    }
  }
}

TEST(CameraAssignment, WhatDoesNotExistIsRefused) {
  for (const char* refused :
       {"", "iso_set", "=400", "voltage=3", "iso_set=450", "shutter=1/7", "battery_level=101",
        "battery_level=57%", "iso=65536", "sd=4294967296", "rec_time=18:12:16", "wb_temp=5650"}) {
    EXPECT_THROW(StartModel(Assignments{refused}), ToolError) << refused;
  }
}

using std::chrono::milliseconds;
using std::chrono::seconds;
using test::Bytes;

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

Bytes Command(std::uint8_t command_id, const Bytes& payload) {
  return Command({0x02, 0x01, 0x02, command_id}, payload);
}

bool SameState(const CameraModel& a, const CameraModel& b) {
  return a.status == b.status && a.settings == b.settings && a.battery == b.battery &&
         a.histogram_on == b.histogram_on && a.recorded_until == b.recorded_until;
}

struct Camera {
  std::string Obey(const Bytes& frame) { return ObeyCommand(frame, start, now, model); }
  std::string Word(std::string_view key) const { return WordOf(model, key); }
  void Pass(milliseconds time) {
    now += time;
    PassTime(model, now);
  }

  const CameraModel start = StartModel({});
  CameraModel model = start;
  SteadyTime now;
};

const Bytes kStart = Command(0x02, {0x01});
const Bytes kStop = Command(0x02, {0x00});

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
  for (const Row& row : rows) {
    for (int code = 0; code < 256; ++code) {
      Bytes payload = row.before;
      payload.push_back(static_cast<std::uint8_t>(code));
      payload.insert(payload.end(), row.after.begin(), row.after.end());
      Camera camera;
      const std::string line = camera.Obey(Command(row.address, payload));
      const bool ignored = line.find("ignored") != std::string::npos;
      const SettingWord* known = nullptr;
      for (const SettingWord& word : row.setting->words) {
        known = word.code == code ? &word : known;
      }
      ASSERT_EQ(ignored, known == nullptr) << line;
      if (known != nullptr) {
        ASSERT_EQ(camera.Word(row.key), known->reported) << line;
      } else {
        ASSERT_TRUE(SameState(camera.model, camera.start)) << line;
      }
    }
  }
}

TEST(ObeyedCommands, WhatTheCameraDoesNotHaveIsToldInHexAndChangesNothing) {
  std::vector<Bytes> frames = {Command(0x2A, {}),
                               Command(0x2A, {5, 0}),
                               Command(0x02, {2}),
                               Command(0x01, {0}),
                               Command(0x28, {1, 0, 0, 0}),
                               Command(0x28, {0, 0x40, 0x9F, 0}),
                               Command(0x28, {1, 7, 0x80, 0}),
                               Command(0x60, {2}),
                               Command(0x78, {1})};
  frames.push_back(Command({0x02, 0x09, 0x09, 0x51}, {0x05}));
  for (const std::size_t offset : {kFrameSenderOffset, kFrameReceiverOffset, kFrameFlagsOffset,
                                   kFrameCommandSetOffset, kFrameCommandIdOffset}) {
    frames.push_back(Command(0x2A, {0x05}));
    frames.back()[offset] ^= 0x01;
    test::Seal(frames.back());
  }
  for (const Bytes& frame : frames) {
    Camera camera;
    const std::string line = camera.Obey(frame);
    EXPECT_NE(line.find("ignored: "), std::string::npos) << line;
    EXPECT_TRUE(SameState(camera.model, camera.start)) << line;
  }
}

TEST(ObeyedCommands, ARecordingCountsUpWhatItTakesFromTheCard) {
  Camera camera;
  camera.Obey(kStart);
  camera.Pass(milliseconds{1900});
  camera.Obey(kStart);  // goes on
  camera.Pass(milliseconds{1200});
  EXPECT_EQ(camera.Word("rec_time"), "00:00:03");
  EXPECT_EQ(camera.Word("rec_time_left"), "01:22:47");
  camera.Pass(seconds{997});
  EXPECT_EQ(camera.Word("rec_time"), "00:16:40");
  EXPECT_EQ(camera.Word("sd"), "47.6G");
  camera.Obey(kStop);
  camera.Pass(seconds{5});
  EXPECT_EQ(camera.Word("rec_time"), "00:00:00");
  EXPECT_EQ(camera.Word("rec_time_left"), "01:06:10");
  camera.Obey(kStart);
  camera.Pass(seconds{5000});
  EXPECT_EQ(camera.Word("rec_time_left"), "00:00:00");
  EXPECT_EQ(camera.Obey(kStart), "recording start, but the card is full");
  camera.Obey(Command(0x72, {}));  // formats it
  EXPECT_EQ(camera.Word("sd"), "59.6G");
  camera.Obey(Command(0x78, {0x00}));
  EXPECT_TRUE(SameState(camera.model, camera.start)) << "reset";
}

}  // namespace
}  // namespace kestrelbridge
