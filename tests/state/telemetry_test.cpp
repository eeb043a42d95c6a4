#include "state/telemetry.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "net/clock.h"
#include "state/main_app_link_record.h"
#include "state/status_decoding.h"
#include "support/peer_socket.h"
#include "support/pushes.h"

namespace kestrelbridge::test {
namespace {

using test::Push;
using test::PushWith;

std::string TextOf(const TextRecord& record) {
  return {record.buffer.begin(),
          record.buffer.begin() + static_cast<std::ptrdiff_t>(record.length)};
}

TEST(Telemetry, PushesMakeTheWholeTextByteForByte) {
  const Bytes status = PushWith(test::kStatus, {{4, {1}},
                                                {9, {0xF8, 0xE8, 0x00, 0x00}},   // 59640 MB
                                                {13, {0xD2, 0x04, 0x00, 0x00}},  // 1234 shots
                                                {17, {0x8D, 0x0E, 0x00, 0x00}},  // 3725 s
                                                {29, {0x41, 0x00}},              // 65 s
                                                {33, {33}}});
  const Bytes settings = PushWith(test::kSettings, {{2, {0xF0, 0x80, 0x00, 5, 20}},
                                                    {10, {1, 0, 2, 16, 6}},
                                                    {20, {4, 0, 0, 6, 56}},
                                                    {31, {52, 1}},
                                                    {38, {0x18, 1, 0xF4, 0x81, 0, 0x90, 1}},
                                                    {55, {3, 9}}});
  const Bytes battery = PushWith(test::kBattery, {{0, {88}}, {39, {1}}});
  // In any order: a push leaves alone what is not its own.
  for (const auto& pushes : {std::vector{status, settings, battery, Push(test::kHistogram)},
                             std::vector{battery, Push(test::kHistogram), settings, status}}) {
    ClearCameraState();
    UpdateCameraState([](CameraState& state) { state.wb_temp_set = 1800; });
    std::ranges::for_each(pushes, [](const Bytes& push) { DecodeStatusFrame(push); });
    EXPECT_EQ(TextOf(BuildTextRecord(SnapshotCameraState())),
              "\x07"
              "camera_detected=1,camera_model=DJI Osmo Action,camera_mode=video,sd=59.6G,"
              "shots_left=1234,rec_time_left=01:02:05,rec_time=00:01:05,voltage=0,battery_level=88,"
              "battery_level=88,battery_charging=1,shot_mode=JPG+RAW,resolution=3840x2160,"
              "framerate=60,format=3840x2160@60,ae=1,aperture=2.8,shutter=1/500,shutter_set=1/240,"
              "iso=400,iso_set=400,ev=+1.3,image_mode=manual,color_mode=d-clike,wb=custom,"
              "wb_temp=5600,ratio=16:9,video_std=NTSC,antiflicker=50 Hz,");
    EXPECT_EQ(SnapshotCameraState().wb_temp_set, 1800.0F);
  }
}

TEST(Telemetry, StatusAndHistogramRecordsCarryTheCamerasBytes) {
  ClearCameraState();
  const std::uint32_t before = NowMs();
  Bytes status(28);
  std::ranges::copy(Bytes{0x06, 0, 0, 0, 0, 0, 0, 0, 0, 0xA0, 0xA1, 0xA2}, status.begin());
  DecodeStatusFrame(PushWith(test::kStatus, {{0, {0xA0}}, {31, {0xA1}}, {2, {0xA2}}}));
  Bytes histogram = {0x06, 0x01};
  for (int i = 0; i < 64; ++i) {
    histogram.push_back(static_cast<std::uint8_t>(255 - i));
  }
  DecodeStatusFrame(
      PushWith(test::kHistogram, {{0, Bytes(histogram.begin() + 2, histogram.end())}}));
  const CameraState state = SnapshotCameraState();
  EXPECT_TRUE(std::ranges::equal(BuildStatusRecord(state), status));
  EXPECT_TRUE(std::ranges::equal(BuildHistogramRecord(state), histogram));
  EXPECT_LE(state.histogram_time_ms - before, NowMs() - before) << "the push stamps the time";
}

TEST(Telemetry, AHistogramIsForgottenOnlyOnceItIsOlderThanThreeSeconds) {
  struct Row {
    std::uint32_t stamp_ms, now_ms;
    bool current;
  };
  constexpr std::uint32_t kLate = UINT32_MAX - 999;  // a second before the clock's wrap
  constexpr Row rows[] = {{5000, 5000, true},  {5000, 8000, true},   {5000, 8001, false},
                          {kLate, 2000, true}, {kLate, 2001, false}, {5000, 4'000'000'000, false}};
  for (const Row& row : rows) {
    ClearCameraState();
    UpdateCameraState([&row](CameraState& state) {
      state.histogram_time_ms = row.stamp_ms;
      state.histogram.fill(9);
    });
    ExpireHistogram(row.stamp_ms, row.now_ms);
    const CameraState after = SnapshotCameraState();
    EXPECT_EQ(after.histogram_time_ms, row.current ? row.stamp_ms : 0)
        << row.stamp_ms << " at " << row.now_ms;
    EXPECT_EQ(after.histogram[63], 9) << "the values stay";
  }
}

TEST(Telemetry, APushThatArrivesWhileTheOldHistogramExpiresIsNotLost) {
  ClearCameraState();
  UpdateCameraState([](CameraState& state) { state.histogram_time_ms = 9001; });
  ExpireHistogram(5000, 9002);  // 5000 was read just before the push
  EXPECT_EQ(SnapshotCameraState().histogram_time_ms, 9001U);
  ExpireHistogram(0, 9002);
  EXPECT_EQ(SnapshotCameraState().histogram_time_ms, 9001U);
}

// Without its receive thread: only the sending side is wanted here.
TEST(Telemetry, TheTextGoesOutAsOneDatagramWithoutANulAndOnlyWhereItCan) {
  CameraState state;
  state.iso = 400;
  const std::string record = TextOf(BuildTextRecord(state));
  const int length = static_cast<int>(record.size());
  const PeerSocket receiver;
  MainAppLink& link = GetMainAppLink();
  ASSERT_EQ(Open(link.command_endpoint, 0), 0);
  const struct {
    const char* host;
    std::uint32_t port;
    int result;
    bool arrives;
  } rows[] = {{"127.0.0.1", receiver.port(), length, true},
              {"", receiver.port(), length - 1, false},
              {"127.0.0.1", 0, length - 1, false},
              {"not.an.address", receiver.port(), -1, false}};
  for (const auto& row : rows) {
    std::snprintf(link.destination_host, sizeof link.destination_host, "%s", row.host);
    link.destination_port = row.port;
    EXPECT_EQ(SendTelemetryText(state), row.result) << row.host;
    // Datagrams on the loopback arrive while they are sent.
    const auto received = receiver.Receive(std::chrono::milliseconds{0});
    ASSERT_EQ(received.has_value(), row.arrives) << row.host;
    EXPECT_TRUE(!received || std::ranges::equal(received->bytes, record)) << row.host;
  }
}

}  // namespace
}  // namespace kestrelbridge::test
