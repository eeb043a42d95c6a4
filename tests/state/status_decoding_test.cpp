#include "state/status_decoding.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "camera/frame_scanner.h"
#include "state/camera_state.h"
#include "state/push_layout.h"
#include "state/pushes.h"
#include "state/telemetry.h"

namespace kestrelbridge {
namespace {

using test::Bytes;
using test::Push;
using test::Put;

// All that the main application can see of the record.
std::vector<std::uint8_t> Visible() {
  const CameraState state = SnapshotCameraState();
  const TextRecord text = BuildTextRecord(state);
  const StatusRecord status = BuildStatusRecord(state);
  std::vector<std::uint8_t> all(text.buffer.begin(), text.buffer.end());
  all.insert(all.end(), status.begin(), status.end());
  all.insert(all.end(), state.histogram.begin(), state.histogram.end());
  all.push_back(state.histogram_time_ms != 0 ? 1 : 0);
  return all;
}

// What the daemon writes to standard error for the frame.
std::string MessagesFor(const Bytes& frame) {
  testing::internal::CaptureStderr();
  DecodeStatusFrame(frame);
  return testing::internal::GetCapturedStderr();
}

class StatusDecoding : public testing::Test {
 protected:
  void SetUp() override { ClearCameraState(); }
};

TEST_F(StatusDecoding, NumbersOfAPushShowInTheTelemetryText) {
  struct Row {
    std::size_t push;
    std::size_t offset;
    Bytes bytes;
    const char* key;
    const char* value;
  };
  const Row rows[] = {
      {test::kStatus, 9, {0xF8, 0xE8, 0, 0}, "sd", "59.6G"},
      {test::kStatus, 9, {0, 0, 0, 0}, "sd", ""},
      {test::kStatus, 9, {0, 0, 0, 1}, "sd", "16777.2G"},
      {test::kStatus, 13, {1, 2, 0, 0}, "shots_left", "513"},
      {test::kStatus, 13, {0xFF, 0xFF, 0xFF, 0x7F}, "shots_left", "2147483647"},
      {test::kStatus, 13, {0, 0, 0, 0x80}, "shots_left", "-2147483648"},
      {test::kStatus, 17, {0x8D, 0x0E, 0, 0}, "rec_time_left", "01:02:05"},
      {test::kStatus, 17, {0x40, 0x7E, 0x05, 0}, "rec_time_left", "100:00:00"},
      {test::kStatus, 29, {0xA0, 0x8C}, "rec_time", "10:00:00"},
      {test::kStatus, 29, {0xFF, 0xFF}, "rec_time", "18:12:15"},
      {test::kStatus, 0, {0}, "camera_detected", "1"},
      {test::kSettings, 24, {56}, "wb_temp", "5600"},
      {test::kSettings, 24, {255}, "wb_temp", "25500"},
      {test::kSettings, 38, {0x18, 0x01}, "aperture", "2.8"},
      {test::kSettings, 38, {0xC8, 0x00}, "aperture", "2"},
      {test::kSettings, 43, {0x64, 0x00}, "iso", "100"},
      {test::kSettings, 43, {0xFF, 0xFF}, "iso", "65535"},
      {test::kSettings, 56, {0}, "ae", "0"},
      {test::kSettings, 56, {0x80}, "ae", "1"},
      {test::kSettings, 2, {0xF0, 0x80, 0x00}, "shutter_set", "1/240"},
      {test::kSettings, 40, {0xF4, 0x81, 0x00}, "shutter", "1/500"},
      {test::kSettings, 40, {0x01, 0x80, 0x19}, "shutter", "1/1.25"},
      {test::kSettings, 2, {0x03, 0x00, 0x02}, "shutter_set", "3.2\""},
      {test::kSettings, 40, {0x05, 0x01, 0x00}, "shutter", ""},
      {test::kSettings, 40, {0xFF, 0xFF, 0xFF}, "shutter", "1/32767.2"},
      {test::kBattery, 0, {100}, "battery_level", "100"},
      {test::kBattery, 0, {0xFF}, "battery_level", "-1"},
      {test::kBattery, 0, {0x80}, "battery_level", "-128"},
      {test::kBattery, 39, {0}, "battery_charging", "0"},
      {test::kBattery, 39, {2}, "battery_charging", "1"},
  };
  for (const Row& row : rows) {
    ClearCameraState();
    Bytes push = Push(row.push);
    Put(push, row.offset, row.bytes);
    DecodeStatusFrame(push);
    EXPECT_EQ(test::Item(test::TelemetryText(), row.key), row.value) << row.key;
  }
}

TEST_F(StatusDecoding, CodesAndRawNumbersAreKeptBesideTheirTexts) {
  // Each payload byte is its own offset.
  const auto counting = [](std::size_t length) {
    Bytes push = Push(length);
    Bytes payload(length - 13);
    for (std::size_t i = 0; i < payload.size(); ++i) {
      payload[i] = static_cast<std::uint8_t>(i);
    }
    Put(push, 0, payload);
    return push;
  };
  for (const std::size_t length :
       {test::kStatus, test::kSettings, test::kBattery, test::kHistogram}) {
    DecodeStatusFrame(counting(length));
  }
  const CameraState state = SnapshotCameraState();
  EXPECT_EQ(state.status_byte_0, 0);
  EXPECT_EQ(state.status_byte_31, 31);
  EXPECT_EQ(state.status_byte_2, 2);
  EXPECT_EQ(state.camera_model_code, 33);
  EXPECT_EQ(state.camera_mode_code, 4);
  EXPECT_EQ(state.sd_free_mb, 0x0C0B0A09U);
  EXPECT_EQ(state.shots_left, 0x100F0E0DU);
  EXPECT_EQ(state.rec_time_left_s, 0x14131211U);
  EXPECT_EQ(state.rec_time_s, 0x1E1DU);
  EXPECT_EQ(state.resolution_code, 13);
  EXPECT_EQ(state.framerate_code, 14);
  EXPECT_EQ(state.wb_code, 23);
  EXPECT_EQ(state.wb_temp_code, 24);
  EXPECT_EQ(state.wb_temp, 2400.0F);
  EXPECT_EQ(state.shot_mode_code, 12);
  EXPECT_EQ(state.aperture_raw, 0x2726);
  EXPECT_EQ(state.iso, 0x2C2B);
  EXPECT_EQ(state.iso_set_code, 5);
  EXPECT_EQ(state.ae, 1);
  EXPECT_EQ(state.ev_value, 0.0F);
  EXPECT_EQ(state.color_mode_code, 31);
  EXPECT_EQ(state.image_mode_code, 20);
  EXPECT_EQ(state.ratio_code, 10);
  EXPECT_EQ(state.video_std_code, 1);
  EXPECT_EQ(state.antiflicker_code, 32);
  EXPECT_EQ(state.shutter_set_raw, 0x040302U);
  EXPECT_EQ(state.shutter_raw, 0x2A2928U);
  EXPECT_EQ(state.battery_level, 0);
  EXPECT_EQ(state.battery_charging, 1);
  for (std::size_t i = 0; i < state.histogram.size(); ++i) {
    EXPECT_EQ(state.histogram[i], i);
  }
  EXPECT_EQ(state.voltage, 0);
  EXPECT_EQ(state.wb_temp_set, 0.0F);
}

TEST_F(StatusDecoding, AByteThatNoFieldReadsChangesNothing) {
  struct Row {
    std::size_t push;
    std::set<std::size_t> read;
  };
  const Row rows[] = {
      {test::kStatus, {0, 2, 4, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 29, 30, 31, 33}},
      {test::kSettings,
       {2, 3, 4, 5, 6, 10, 12, 13, 14, 20, 23, 24, 31, 32, 38, 39, 40, 41, 42, 43, 44, 55, 56}},
      {test::kBattery, {0, 39}},
  };
  for (const Row& row : rows) {
    DecodeStatusFrame(Push(row.push));
    const auto before = Visible();
    for (std::size_t offset = 0; offset < row.push - 13; ++offset) {
      bool changed = false;
      for (int value = 1; value < 256 && !changed; ++value) {
        Bytes push = Push(row.push);
        Put(push, offset, {static_cast<std::uint8_t>(value)});
        DecodeStatusFrame(push);
        changed = Visible() != before;
      }
      EXPECT_EQ(changed, row.read.contains(offset)) << row.push << " payload byte " << offset;
      DecodeStatusFrame(Push(row.push));
    }
  }
}

TEST_F(StatusDecoding, APushChangesItsOwnItemsAndLeavesAllOthersAlone) {
  struct Row {
    std::size_t push;
    std::set<std::string> keys;  // that differ between payloads of 01 and of FF
  };
  const Row rows[] = {
      {test::kStatus, {"camera_mode", "sd", "shots_left", "rec_time", "rec_time_left"}},
      {test::kSettings,
       {"shot_mode", "framerate", "format", "aperture", "shutter", "shutter_set", "iso", "wb",
        "wb_temp", "color_mode", "ratio", "antiflicker"}},
      {test::kBattery, {"battery_level"}},
      {test::kHistogram, {}},
  };
  for (const Row& row : rows) {
    UpdateCameraState([](CameraState& state) { state.wb_temp_set = 1800; });
    for (const Row& each : rows) {
      DecodeStatusFrame(Push(each.push, 0x01));
    }
    const std::string before = test::TelemetryText();
    DecodeStatusFrame(Push(row.push, 0xFF));
    const std::string after = test::TelemetryText();
    for (const std::string& key : test::Keys(after)) {
      EXPECT_EQ(test::Item(after, key) != test::Item(before, key), row.keys.contains(key))
          << row.push << " " << key;
    }
    EXPECT_EQ(SnapshotCameraState().histogram[0], row.push == test::kHistogram ? 0xFF : 0x01);
    EXPECT_EQ(SnapshotCameraState().wb_temp_set, 1800.0F);
  }
}

TEST_F(StatusDecoding, AShutterValueThatMeansNothingLeavesTheWordBefore) {
  Bytes push = Push(test::kSettings);
  Put(push, 40, {0x40, 0x9F, 0x00});
  DecodeStatusFrame(push);
  Put(push, 40, {0x05, 0x01, 0x00});
  DecodeStatusFrame(push);
  EXPECT_EQ(test::Item(test::TelemetryText(), "shutter"), "1/8000");
  EXPECT_EQ(SnapshotCameraState().shutter_raw, 0x000105U);
}

TEST_F(StatusDecoding, OnlyTheStatusPushIsAlsoKnownByItsCommand) {
  constexpr std::size_t flags = 8;
  constexpr std::size_t command_set = 9;
  constexpr std::size_t command_id = 10;
  const auto untouched = Visible();
  for (const std::size_t offset : {flags, command_set, command_id}) {
    Bytes status = Push(test::kStatus, 0x21);
    status[offset] ^= 0x01;
    test::Seal(status);
    EXPECT_EQ(MessagesFor(status), "");
    EXPECT_EQ(Visible(), untouched) << offset;
  }
  for (const std::size_t length : {test::kSettings, test::kBattery, test::kHistogram}) {
    ClearCameraState();
    Bytes push = Push(length, 0x21);
    push[flags] = 0x40;
    push[command_set] = 0x77;
    push[command_id] = 0x77;
    test::Seal(push);
    DecodeStatusFrame(push);
    EXPECT_NE(Visible(), untouched) << length;
  }
}

TEST_F(StatusDecoding, FramesOfOtherLengthsAreIgnored) {
  const auto untouched = Visible();
  testing::internal::CaptureStderr();
  for (std::size_t length = 13; length < 256; ++length) {
    if (length != test::kStatus && length != test::kSettings && length != test::kBattery &&
        length != test::kHistogram) {
      DecodeStatusFrame(Push(length, 0xFF));
    }
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(Visible(), untouched);
}

TEST_F(StatusDecoding, ADamagedFrameChangesNothingAndOnlyAWrongCheckSumIsReported) {
  struct Row {
    const char* what;
    void (*damage)(Bytes& frame);
    const char* message;
  };
  // The CRC-8 covers the three first bytes only; renewing the CRC-16 leaves it wrong alone.
  const Row rows[] = {
      {"empty", [](Bytes& frame) { frame.resize(0); }, ""},
      {"1 byte", [](Bytes& frame) { frame.resize(1); }, ""},
      {"2 bytes that say so", [](Bytes& frame) { frame.resize(2), frame[1] = 2; }, ""},
      {"3 bytes that say so", [](Bytes& frame) { frame.resize(3), frame[1] = 3; }, ""},
      {"9 bytes that say so", [](Bytes& frame) { frame.resize(9), frame[1] = 9; }, ""},
      {"10 bytes, unsealed", [](Bytes& frame) { frame.resize(10), frame[1] = 10; },
       "CRC16 wrong\n"},
      {"cut by one", [](Bytes& frame) { frame.pop_back(); }, ""},
      {"one too long", [](Bytes& frame) { frame.push_back(0); }, ""},
      {"length byte one up", [](Bytes& frame) { ++frame[1], test::Seal(frame); }, ""},
      {"start byte", [](Bytes& frame) { frame[0] = 0x54, test::Seal(frame); }, ""},
      {"payload", [](Bytes& frame) { frame[20] ^= 1; }, "CRC16 wrong\n"},
      {"CRC-16 low", [](Bytes& frame) { frame[frame.size() - 2] ^= 1; }, "CRC16 wrong\n"},
      {"CRC-16 high", [](Bytes& frame) { frame.back() ^= 0x80; }, "CRC16 wrong\n"},
      {"CRC-8", [](Bytes& frame) { frame[3] ^= 1, SealCommandFrame(frame, 0); }, "CRC8 wrong\n"},
      {"both", [](Bytes& frame) { frame[3] ^= 1; }, "CRC16 wrong\n"},
  };
  const auto untouched = Visible();
  for (const std::size_t length :
       {test::kStatus, test::kSettings, test::kBattery, test::kHistogram}) {
    for (const Row& row : rows) {
      Bytes frame = Push(length, 0xFF);
      row.damage(frame);
      frame.shrink_to_fit();
      EXPECT_EQ(MessagesFor(frame), row.message) << length << ", " << row.what;
      EXPECT_EQ(Visible(), untouched) << length << ", " << row.what;
    }
  }
}

TEST_F(StatusDecoding, APushInsideAnotherIsPayloadUntilTheOuterOneIsDamaged) {
  Bytes outer = Push(test::kSettings);
  Bytes inner = Push(test::kBattery);
  Put(inner, 0, {77});
  Put(outer, 45, Bytes(inner.begin(), inner.end()));
  ScanCommandFrames(outer);
  EXPECT_EQ(test::Item(test::TelemetryText(), "battery_level"), "0");
  EXPECT_EQ(test::Item(test::TelemetryText(), "wb"), "auto");
  outer.back() ^= 1;
  ClearCameraState();
  ScanCommandFrames(outer);
  EXPECT_EQ(test::Item(test::TelemetryText(), "battery_level"), "77");
  EXPECT_EQ(test::Item(test::TelemetryText(), "wb"), "");
}

TEST_F(StatusDecoding, AFieldWrittenByWhoPlaysTheCameraReadsBack) {
  struct Row {
    std::span<const PushField> fields;
    std::size_t payload_size;
  };
  for (const Row& row :
       {Row{kStatusPushFields, 67}, Row{kSettingsPushFields, 102}, Row{kBatteryPushFields, 40}}) {
    Bytes payload(row.payload_size);
    std::uint32_t value = 0x89ABCDEF;
    for (const PushField& field : row.fields) {
      WriteField(payload, field, value);
      const std::uint64_t mask = (std::uint64_t{1} << 8 * field.width) - 1;
      EXPECT_EQ(LoadField(payload, field), value & mask) << field.name;
      value = value << 5 | value >> 27;
    }
  }
}

}  // namespace
}  // namespace kestrelbridge
