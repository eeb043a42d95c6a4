#include "tools/obeyed_commands.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "state/vocabulary.h"
#include "tools/camera_assignment.h"
#include "tools/camera_words.h"

namespace kestrelbridge {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using test::Bytes;

// A command frame as the daemon's, from its sender on: sender, receiver, set and id.
Bytes Command(const Bytes& address, const Bytes& payload) {
  Bytes frame(payload.size() + kFrameOverhead);
  frame[0] = 0x55;
  frame[1] = static_cast<std::uint8_t>(frame.size());
  frame[2] = 0x04;
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
  explicit Camera(const std::vector<std::string>& assignments = {})
      : start(StartModel(assignments)), model(start) {}

  std::string Obey(const Bytes& frame) { return ObeyCommand(frame, start, now, model); }
  std::string Word(std::string_view key) const { return test::WordOf(model, key); }
  void Pass(milliseconds time) {
    now += time;
    PassTime(model, now);
  }

  CameraModel start;
  CameraModel model;
  SteadyTime now;
};

const Bytes kStart = Command(0x02, {0x01});
const Bytes kStop = Command(0x02, {0x00});
const Bytes kShot = Command(0x01, {0x01});
const Bytes kFormat = Command(0x72, {});
const Bytes kReset = Command(0x78, {0x00});

TEST(ObeyedCommands, ACommandIsToldInWordsAndTheNextPushShowsIt) {
  struct Row {
    Bytes frame;
    const char* line;
    const char* key;
    const char* word;
  };
  const Row rows[] = {
      {kShot, "shot", "shots_left", "5963"},
      {kStart, "recording start", "rec_time", "00:00:00"},
      {kStop, "recording stop", "rec_time", "00:00:00"},
      {Command({0x09, 0x01, 0x02, 0x10}, {0x00}), "mode photo", "camera_mode", "photo"},
      {Command(0x1E, {0x04, 0x00}), "exposure mode manual", "image_mode", "manual"},
      {Command(0x1E, {0x04, 0x00}), "exposure mode manual", "ae", "0"},
      {Command(0x28, {0x01, 0x40, 0x9F, 0x00}), "shutter 1/8000", "shutter_set", "1/8000"},
      {Command(0x28, {0x01, 0x03, 0x00, 0x02}), "shutter 3.2\"", "shutter", "3.2\""},
      {Command(0x28, {0x01, 0x01, 0x80, 0x43}), "shutter 1/1.67", "shutter", "1/1.67"},
      {Command(0x2A, {0x05}), "ISO 400", "iso_set", "400"},
      {Command(0x2A, {0x05}), "ISO 400", "iso", "400"},
      {Command(0x2A, {0x00}), "ISO auto", "iso", "100"},
      {Command(0x2E, {0x14}), "EV +1.3", "ev", "+1.3"},
      {Command(0x2C, {0x02, 0x40}), "white balance cloudy, 6400 K", "wb", "cloudy"},
      {Command(0x2C, {0x06, 0x38}), "white balance custom, 5600 K", "wb", "custom"},
      {Command(0x2C, {0x06, 0x14}), "white balance custom, 2000 K", "wb_temp", "2000"},
      {Command(0x42, {0x34}), "color d-clike", "color_mode", "d-clike"},
      {Command(0x18, {0x16, 0x02, 0, 0, 0}), "video size 4096x2160@25", "format", "4096x2160@25"},
      {Command(0xAF, {0x04, 0x13}), "video size, second frame 1280x720@200", "format",
       "1280x720@200"},
      {Command(0x12, {0x00, 0x00}), "aspect ratio 4:3", "ratio", "4:3"},
      {Command(0x16, {0x02}), "shot mode JPG+RAW", "shot_mode", "JPG+RAW"},
      {Command(0x46, {0x01}), "anti-flicker 50 Hz", "antiflicker", "50 Hz"},
      {Command(0x66, {0x00}), "video standard PAL", "video_std", "PAL"},
      {Command(0x60, {0x00}), "histogram off", "camera_detected", "1"},
      {Command({0x02, 0x07, 0x07, 0x10}, {0x01}), "Wi-Fi band 5.8 GHz", "camera_detected", "1"},
      {Command({0x02, 0x07, 0x07, 0x15}, {}), "Wi-Fi restart", "camera_detected", "1"},
      {Command({0x02, 0x09, 0x09, 0x51}, {0x03}), "power restart", "camera_detected", "1"},
      {kReset, "reset", "shots_left", "5964"},
      {kFormat, "format the card", "shots_left", "5964"},
  };
  for (const Row& row : rows) {
    Camera camera;
    EXPECT_EQ(camera.Obey(row.frame), row.line);
    EXPECT_EQ(camera.Word(row.key), row.word) << row.line;
  }
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
  struct Row {
    Bytes frame;
    const char* line;
  };
  const Bytes iso = Command(0x2A, {0x05});
  const auto with = [&iso](std::size_t offset, std::uint8_t value) {
    Bytes changed = iso;
    changed[offset] = value;
    test::Seal(changed);
    return changed;
  };
  const Row rows[] = {
      {with(kFrameSenderOffset, 0x09), "unknown"},
      {with(kFrameReceiverOffset, 0x09), "unknown"},
      {with(kFrameFlagsOffset, 0x00), "unknown"},
      {with(kFrameCommandSetOffset, 0x07), "unknown"},
      {with(kFrameCommandIdOffset, 0x2B), "unknown, ignored: 55 0E 04 66 02 01"},
      {Command(0x2A, {}), "unknown"},
      {Command(0x2A, {0x05, 0x00}), "unknown"},
      {Command(0x2A, Bytes(242)), "unknown"},
      {Command(0x02, {0x02}), "recording, a code that the camera does not have, ignored: 02"},
      {Command(0x01, {0x00}), "shot, a code"},
      {Command(0x28, {0x01, 0x00, 0x00, 0x00}), "shutter, a code"},
      {Command(0x28, {0x00, 0x40, 0x9F, 0x00}), "shutter, a code"},
      {Command(0x28, {0x01, 0x07, 0x80, 0x00}), "shutter, a code"},
      {Command(0x60, {0x02}), "histogram, a code"},
      {Command(0x78, {0x01}), "reset, a code"},
      {Command({0x02, 0x09, 0x09, 0x51}, {0x00}), "power, a code"},
      {Command({0x02, 0x09, 0x09, 0x51}, {0x05}), "power, a code"},
  };
  for (const Row& row : rows) {
    Camera camera;
    const std::string line = camera.Obey(row.frame);
    EXPECT_TRUE(line.starts_with(row.line)) << line;
    EXPECT_NE(line.find("ignored: "), std::string::npos) << line;
    EXPECT_TRUE(SameState(camera.model, camera.start)) << line;
  }
}

TEST(ObeyedCommands, ARecordingCountsUpWhatItTakesFromTheCard) {
  Camera camera;
  camera.Pass(seconds{5});
  EXPECT_EQ(camera.Word("rec_time"), "00:00:00");
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
  EXPECT_EQ(camera.Word("rec_time"), "00:00:00");
}

TEST(ObeyedCommands, AFullCardEndsARecordingAndTakesNoShotUntilItIsFormatted) {
  Camera camera({"rec_time_left=3", "shots_left=1", "sd=20"});
  camera.Obey(kStart);
  camera.Pass(seconds{10});
  EXPECT_EQ(camera.Word("rec_time"), "00:00:00");
  EXPECT_EQ(camera.Word("rec_time_left"), "00:00:00");
  EXPECT_EQ(camera.Word("sd"), "");
  EXPECT_EQ(camera.Obey(kStart), "recording start, but the card is full");
  EXPECT_EQ(camera.Obey(kShot), "shot");
  EXPECT_EQ(camera.Obey(kShot), "shot but the card is full");
  EXPECT_EQ(camera.Word("shots_left"), "0");
  camera.Obey(kFormat);
  EXPECT_EQ(camera.Word("shots_left"), "5964");
  EXPECT_EQ(camera.Word("rec_time_left"), "01:22:50");
  EXPECT_EQ(camera.Word("sd"), "59.6G");
  EXPECT_EQ(camera.Obey(kShot), "shot");
}

TEST(ObeyedCommands, ResetBringsBackTheStateOfTheStart) {
  Camera camera({"iso=800", "battery=33"});
  for (const Bytes& frame : {kStart, kShot, Command(0x2A, {0x00}), Command(0x60, {0x00})}) {
    camera.Obey(frame);
  }
  EXPECT_FALSE(SameState(camera.model, camera.start));
  camera.Obey(kReset);
  EXPECT_TRUE(SameState(camera.model, camera.start));
  EXPECT_EQ(camera.Word("iso_set"), "800");
}

}  // namespace
}  // namespace kestrelbridge
