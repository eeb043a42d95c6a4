#include "tools/simulated_camera.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "camera/packet_format.h"
#include "state/pushes.h"
#include "support/eventually.h"
#include "tools/camera_assignment.h"
#include "video/command_data.h"

namespace kestrelbridge {
namespace {

CameraOptions OneUnitInTenSeconds() {
  CameraOptions options;
  options.units_per_second = 0.1;
  options.start = StartModel({});
  return options;
}

const UdpPeer kLoopback = {.address = htonl(INADDR_LOOPBACK), .port = 0};

// A camera and an app on real sockets; the camera's time is the test's.
class SimulatedCameraTest : public testing::Test {
 protected:
  SimulatedCameraTest() : units_{unit_}, camera_(OneUnitInTenSeconds(), units_, socket_, journal_) {
    ClearCameraState();
  }

  void SendToCamera(std::span<const std::uint8_t> packet) {
    EXPECT_TRUE(app_.Send(packet, socket_.Local()));
    ++packets_sent_;
    EXPECT_TRUE(Eventually([this] {
      camera_.Receive(now_);
      const CameraCounters& counters = camera_.Counters();
      return counters.connection_requests + counters.commands + counters.bad_packets ==
             packets_sent_;
    }));
  }

  void SendCommand(std::uint8_t command_id, std::uint8_t code) {
    test::Bytes frame(14);
    frame[0] = 0x55;
    frame[1] = 14;
    frame[2] = 0x04;
    frame[4] = 0x02;
    frame[5] = 0x01;
    frame[8] = 0x40;
    frame[9] = 0x02;
    frame[10] = command_id;
    test::Put(frame, 0, {code});
    SealCommandFrame(frame, frame_sequence_++);
    const CommandPacket packet = BuildCommandPacket(frame, 0);
    SendToCamera(std::span(packet).first(kSentWrapperSize + frame.size()));
  }

  // Lets time pass in steps; what the camera sends meanwhile goes through the daemon's gathering.
  void Pass(std::chrono::milliseconds time) {
    for (const SteadyTime end = now_ + time; now_ < end; now_ += std::chrono::milliseconds{10}) {
      camera_.Send(now_);
      TakeFromCamera();
    }
  }

  void TakeFromCamera() {
    EXPECT_TRUE(Eventually([this] {
      std::span<const std::uint8_t> datagram;
      UdpPeer from;
      while (app_.Receive(buffer_, datagram, from)) {
        ++datagrams_taken_;
        if (datagram[kWrapperKindOffset] == kKindCommandData) {
          GatherCommandData(datagram.subspan(kReceivedWrapperSize));
        }
      }
      return datagrams_taken_ == camera_.Counters().datagrams_sent;
    }));
  }

  const std::vector<std::uint8_t> unit_ = {0, 0, 0, 1, 0x65, 1, 2, 3};
  const std::vector<AccessUnit> units_;
  const UdpSocket socket_{kLoopback};
  const UdpSocket app_{kLoopback};
  CameraJournal journal_{""};
  SimulatedCamera camera_;
  SteadyTime now_{std::chrono::hours{1}};
  std::vector<std::uint8_t> buffer_ = std::vector<std::uint8_t>(2000);
  std::uint64_t packets_sent_ = 0;
  std::uint64_t datagrams_taken_ = 0;
  std::uint16_t frame_sequence_ = 7;
};

TEST_F(SimulatedCameraTest, ACommandIsPrintedAndShowsWithinAFifthOfASecond) {
  SendToCamera(BuildConnectionRequest());
  Pass(std::chrono::milliseconds{200});
  EXPECT_EQ(test::Item(test::TelemetryText(), "iso_set"), "auto");
  testing::internal::CaptureStdout();
  SendCommand(0x2A, 0x05);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "command: ISO 400\n");
  Pass(std::chrono::milliseconds{200});
  EXPECT_EQ(test::Item(test::TelemetryText(), "iso_set"), "400");
  EXPECT_EQ(camera_.Counters().commands, 1U);
  EXPECT_EQ(camera_.Counters().bad_packets, 0U);
}

TEST_F(SimulatedCameraTest, ARecordingRunsWithTheCamerasTime) {
  SendToCamera(BuildConnectionRequest());
  SendCommand(0x02, 0x01);
  Pass(std::chrono::milliseconds{3200});
  EXPECT_EQ(test::Item(test::TelemetryText(), "rec_time"), "00:00:03");
  SendCommand(0x02, 0x00);
  Pass(std::chrono::milliseconds{200});
  EXPECT_EQ(test::Item(test::TelemetryText(), "rec_time"), "00:00:00");
}

}  // namespace
}  // namespace kestrelbridge
