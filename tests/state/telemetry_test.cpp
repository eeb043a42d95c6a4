#include "state/telemetry.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "net/clock.h"
#include "state/main_app_link_record.h"
#include "state/pushes.h"
#include "state/status_decoding.h"

namespace kestrelbridge {
namespace {

using test::Bytes;
using test::Push;
using test::Put;

std::string TextOf(const TextRecord& record) {
  return {record.buffer.begin(),
          record.buffer.begin() + static_cast<std::ptrdiff_t>(record.length)};
}

TEST(Telemetry, BeforeAnyPushTheTextHoldsZerosAndEmptyTexts) {
  EXPECT_EQ(TextOf(BuildTextRecord({})),
            "\x07"
            "camera_detected=0,camera_model=,camera_mode=,sd=,shots_left=0,rec_time_left=,"
            "rec_time=,voltage=0,battery_level=0,battery_level=0,battery_charging=0,shot_mode=,"
            "resolution=,framerate=,format=@,ae=0,aperture=,shutter=,shutter_set=,iso=0,iso_set=,"
            "ev=,image_mode=,color_mode=,wb=,wb_temp=0,ratio=,video_std=,antiflicker=,");
}

TEST(Telemetry, PushesMakeTheWholeTextByteForByte) {
  ClearCameraState();
  Bytes status = Push(test::kStatus);
  Put(status, 4, {1});
  Put(status, 9, {0xF8, 0xE8, 0x00, 0x00});   // 59640 MB
  Put(status, 13, {0xD2, 0x04, 0x00, 0x00});  // 1234 shots
  Put(status, 17, {0x8D, 0x0E, 0x00, 0x00});  // 3725 s
  Put(status, 29, {0x41, 0x00});              // 65 s
  Put(status, 33, {33});
  Bytes settings = Push(test::kSettings);
  Put(settings, 2, {0xF0, 0x80, 0x00});
  Put(settings, 5, {5});
  Put(settings, 6, {20});
  Put(settings, 10, {1});
  Put(settings, 12, {2});
  Put(settings, 13, {16});
  Put(settings, 14, {6});
  Put(settings, 20, {4});
  Put(settings, 23, {6});
  Put(settings, 24, {56});
  Put(settings, 31, {52});
  Put(settings, 32, {1});
  Put(settings, 38, {0x18, 0x01});
  Put(settings, 40, {0xF4, 0x81, 0x00});
  Put(settings, 43, {0x90, 0x01});
  Put(settings, 55, {3});
  Put(settings, 56, {9});
  Bytes battery = Push(test::kBattery);
  Put(battery, 0, {88});
  Put(battery, 39, {1});
  for (const Bytes& push : {status, settings, battery}) {
    DecodeStatusFrame(push);
  }
  EXPECT_EQ(TextOf(BuildTextRecord(SnapshotCameraState())),
            "\x07"
            "camera_detected=1,camera_model=DJI Osmo Action,camera_mode=video,sd=59.6G,"
            "shots_left=1234,rec_time_left=01:02:05,rec_time=00:01:05,voltage=0,battery_level=88,"
            "battery_level=88,battery_charging=1,shot_mode=JPG+RAW,resolution=3840x2160,"
            "framerate=60,format=3840x2160@60,ae=1,aperture=2.8,shutter=1/500,shutter_set=1/240,"
            "iso=400,iso_set=400,ev=+1.3,image_mode=manual,color_mode=d-clike,wb=custom,"
            "wb_temp=5600,ratio=16:9,video_std=NTSC,antiflicker=50 Hz,");
}

TEST(Telemetry, ARecordAtItsLimitsKeepsAllOfItsItems) {
  CameraState state;
  const auto fill = [](auto&... texts) {
    (std::fill(std::begin(texts), std::end(texts) - 1, 'x'), ...);
  };
  fill(state.camera_model, state.camera_mode, state.sd, state.rec_time, state.rec_time_left,
       state.shot_mode, state.resolution, state.framerate, state.image_mode, state.aperture,
       state.shutter, state.shutter_set, state.iso_set, state.ev, state.color_mode, state.wb,
       state.ratio, state.video_std, state.antiflicker);
  state.camera_detected = state.ae = state.battery_charging = 0xFF;
  state.battery_level = INT8_MIN;
  state.voltage = INT16_MIN;
  state.shots_left = 0x80000000;
  state.iso = UINT16_MAX;
  state.wb_temp = 25'500;
  const std::string text = TextOf(BuildTextRecord(state));
  EXPECT_EQ(std::ranges::count(text, ','), 29);
  EXPECT_TRUE(text.ends_with(",antiflicker=xxxxxxxxx,"));
  EXPECT_LT(text.size(), 800U);
  EXPECT_EQ(test::Item(text, "shots_left"), "-2147483648");
  EXPECT_EQ(test::Item(text, "voltage"), "-32768");
}

TEST(Telemetry, TheStatusRecordCarriesThreeBytesOfTheCamera) {
  ClearCameraState();
  Bytes status = Push(test::kStatus, 0x11);
  Put(status, 0, {0xA0});
  Put(status, 31, {0xA1});
  Put(status, 2, {0xA2});
  DecodeStatusFrame(status);
  const StatusRecord expected = {0x06, 0x00, 0,    0,  // type
                                 0,    0,    0,    0,  //
                                 0,    0xA0, 0xA1, 0xA2};
  EXPECT_EQ(expected.size(), 28U);
  EXPECT_EQ(BuildStatusRecord(SnapshotCameraState()), expected);
}

TEST(Telemetry, TheHistogramRecordCarriesThe64ValuesInOrder) {
  ClearCameraState();
  Bytes histogram = Push(test::kHistogram);
  Bytes expected = {0x06, 0x01};
  for (int i = 0; i < 64; ++i) {
    expected.push_back(static_cast<std::uint8_t>(255 - i));
  }
  Put(histogram, 0, Bytes(expected.begin() + 2, expected.end()));
  DecodeStatusFrame(histogram);
  const HistogramRecord record = BuildHistogramRecord(SnapshotCameraState());
  EXPECT_EQ(Bytes(record.begin(), record.end()), expected);
}

TEST(Telemetry, AHistogramPushStampsTheTime) {
  ClearCameraState();
  const std::uint32_t before = NowMs();
  DecodeStatusFrame(Push(test::kHistogram));
  const std::uint32_t stamp = SnapshotCameraState().histogram_time_ms;
  EXPECT_LE(stamp - before, NowMs() - before);
}

TEST(Telemetry, AHistogramIsForgottenOnlyOnceItIsOlderThanThreeSeconds) {
  struct Row {
    std::uint32_t stamp_ms;
    std::uint32_t now_ms;
    bool current;
  };
  constexpr Row rows[] = {
      {5000, 5000, true},
      {5000, 7999, true},
      {5000, 8000, true},
      {5000, 8001, false},
      {5000, 4'000'000'000, false},
      {UINT32_MAX - 999, 2000, true},  // 3000 ms, across the wrap of the clock
      {UINT32_MAX - 999, 2001, false},
      {1, 3001, true},
      {1, 3002, false},
  };
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

// Where the text record goes, and the socket there.
class TelemetryLink : public testing::Test {
 protected:
  void SetUp() override {
    receiver = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ASSERT_EQ(bind(receiver, reinterpret_cast<sockaddr*>(&address), size), 0);
    ASSERT_EQ(getsockname(receiver, reinterpret_cast<sockaddr*>(&address), &size), 0);
    port = ntohs(address.sin_port);
    // Without its receive thread: only the sending side is wanted here.
    GetMainAppLink().command_endpoint.socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  }

  void TearDown() override {
    close(receiver);
    close(GetMainAppLink().command_endpoint.socket);
    GetMainAppLink().command_endpoint.socket = -1;
    SetDestination("", 0);
  }

  static void SetDestination(const char* host, std::uint32_t port) {
    MainAppLink& link = GetMainAppLink();
    std::strncpy(link.destination_host, host, sizeof link.destination_host - 1);
    link.destination_host[std::strlen(host)] = '\0';
    link.destination_port = port;
  }

  // The datagram that waits, or an empty text. Datagrams on the loopback arrive while they are
  // sent.
  std::string Received() const {
    std::array<char, 2000> buffer{};
    const ssize_t length = recv(receiver, buffer.data(), buffer.size(), MSG_DONTWAIT);
    return length < 0 ? std::string()
                      : std::string(buffer.data(), static_cast<std::size_t>(length));
  }

  int receiver = -1;
  std::uint16_t port = 0;
};

TEST_F(TelemetryLink, TheTextGoesOutAsOneDatagramWithoutANul) {
  CameraState state;
  state.iso = 400;
  SetDestination("127.0.0.1", port);
  const std::string record = TextOf(BuildTextRecord(state));
  EXPECT_EQ(SendTelemetryText(state), static_cast<int>(record.size()));
  EXPECT_EQ(Received(), record);
}

TEST_F(TelemetryLink, WithoutHostOrPortNothingIsSentAndTheTextsLengthReturned) {
  const int text_length = static_cast<int>(TextOf(BuildTextRecord({})).size()) - 1;
  SetDestination("", port);
  EXPECT_EQ(SendTelemetryText({}), text_length);
  SetDestination("127.0.0.1", 0);
  EXPECT_EQ(SendTelemetryText({}), text_length);
  EXPECT_EQ(Received(), "");
}

TEST_F(TelemetryLink, AHostThatIsNoAddressLosesTheRecordOnly) {
  SetDestination("not.an.address", port);
  EXPECT_EQ(SendTelemetryText({}), -1);
  EXPECT_EQ(Received(), "");
}

}  // namespace
}  // namespace kestrelbridge
