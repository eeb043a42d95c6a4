#include "state/status_decoding.h"

#include <gtest/gtest.h>

#include <numeric>
#include <set>
#include <string>
#include <vector>

#include "camera/command_frame_scanner.h"
#include "camera/packet_format.h"
#include "state/camera_state.h"
#include "state/telemetry.h"
#include "support/pushes.h"

namespace kestrelbridge::test {
namespace {

using test::Push;
using test::PushWith;

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
      {test::kStatus, 9, {0, 0, 0, 0}, "sd", ""},
      {test::kStatus, 9, {1, 0, 0, 0}, "sd", "0.0G"},
      {test::kStatus, 9, {60, 0, 0, 0}, "sd", "0.1G"},
      {test::kStatus, 9, {0xFF, 0xFF, 0xFF, 0xFF}, "sd", "4294967.5G"},
      {test::kStatus, 13, {1, 2, 0, 0}, "shots_left", "513"},
      {test::kStatus, 13, {0xFF, 0xFF, 0xFF, 0x7F}, "shots_left", "2147483647"},
      {test::kStatus, 13, {0, 0, 0, 0x80}, "shots_left", "-2147483648"},
      {test::kStatus, 17, {0x8D, 0x0E, 0, 0}, "rec_time_left", "01:02:05"},
      {test::kStatus, 17, {0x0F, 0x0E, 0, 0}, "rec_time_left", "00:59:59"},
      {test::kStatus, 17, {0x10, 0x0E, 0, 0}, "rec_time_left", "01:00:00"},
      {test::kStatus, 17, {0x40, 0x7E, 0x05, 0}, "rec_time_left", "100:00:00"},
      {test::kStatus, 17, {0xFF, 0xFF, 0xFF, 0xFF}, "rec_time_left", "1193046:28:15"},
      {test::kStatus, 29, {0xFF, 0xFF}, "rec_time", "18:12:15"},
      {test::kStatus, 0, {0}, "camera_detected", "1"},
      {test::kSettings, 24, {255}, "wb_temp", "25500"},
      {test::kSettings, 38, {0xC8, 0x00}, "aperture", "2"},
      {test::kSettings, 38, {0x01, 0x00}, "aperture", "0.0"},
      {test::kSettings, 38, {0x4C, 0x04}, "aperture", "11"},
      {test::kSettings, 38, {0xFA, 0xFF}, "aperture", "655.3"},
      {test::kSettings, 43, {0xFF, 0xFF}, "iso", "65535"},
      {test::kSettings, 56, {0}, "ae", "0"},
      {test::kSettings, 56, {0x80}, "ae", "1"},
      {test::kSettings, 2, {0xF0, 0x80, 0x00}, "shutter_set", "1/240"},
      {test::kSettings, 40, {0xF4, 0x81, 0x00}, "shutter", "1/500"},
      {test::kSettings, 40, {0x01, 0x80, 0x19}, "shutter", "1/1.25"},
      {test::kSettings, 2, {0x03, 0x00, 0x02}, "shutter_set", "3.2\""},
      {test::kSettings, 40, {0xFF, 0x00, 0xFF}, "shutter", "255.255\""},
      {test::kSettings, 40, {0xFF, 0x00, 0x00}, "shutter", "255\""},
      {test::kSettings, 40, {0x00, 0x00, 0x00}, "shutter", "0\""},
      {test::kSettings, 40, {0x00, 0x80, 0x05}, "shutter", "1/0.5"},
      {test::kSettings, 40, {0x05, 0x01, 0x00}, "shutter", ""},
      {test::kSettings, 40, {0xFF, 0x7F, 0x00}, "shutter", ""},
      {test::kSettings, 40, {0xFF, 0xFF, 0xFF}, "shutter", "1/32767.2"},
      {test::kBattery, 0, {0xFF}, "battery_level", "-1"},
      {test::kBattery, 0, {0x80}, "battery_level", "-128"},
      {test::kBattery, 39, {0}, "battery_charging", "0"},
      {test::kBattery, 39, {2}, "battery_charging", "1"},
  };
  for (const Row& row : rows) {
    ClearCameraState();
    DecodeStatusFrame(PushWith(row.push, {{row.offset, row.bytes}}));
    EXPECT_EQ(test::Item(test::TelemetryText(), row.key), row.value) << row.key;
  }
}

TEST_F(StatusDecoding, APushIsKnownByItsLengthAndTheStatusPushAlsoByItsCommand) {
  const auto untouched = Visible();
  for (std::size_t length = 13; length < 256; ++length) {
    const bool is_status = length == test::kStatus;
    const bool is_push = is_status || length == test::kSettings || length == test::kBattery ||
                         length == test::kHistogram;
    for (const std::size_t changed : {7, 8, 9, 10}) {  // sequence, flags, command set and id
      ClearCameraState();
      Bytes push = Push(length, 0x21);
      push[changed] ^= 0x41;
      test::Seal(push);
      EXPECT_EQ(MessagesFor(push), "");
      EXPECT_EQ(Visible() != untouched, is_push && (!is_status || changed == 7))
          << length << ", byte " << changed;
    }
  }
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
  Bytes outer = PushWith(test::kSettings, {{45, PushWith(test::kBattery, {{0, {77}}})}});
  ScanCommandFrames(outer, DecodeSoundFrame);
  EXPECT_EQ(test::Item(test::TelemetryText(), "battery_level"), "0");
  EXPECT_EQ(test::Item(test::TelemetryText(), "wb"), "auto");
  outer.back() ^= 1;
  ClearCameraState();
  ScanCommandFrames(outer, DecodeSoundFrame);
  EXPECT_EQ(test::Item(test::TelemetryText(), "battery_level"), "77");
  EXPECT_EQ(test::Item(test::TelemetryText(), "wb"), "");
}

}  // namespace
}  // namespace kestrelbridge::test
