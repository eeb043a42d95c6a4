// The session piece by piece: in which order a datagram is dealt with, when command data is looked
// at, and which packets take a number.

#include "session/camera_session.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "base/counters.h"
#include "bridge/phone_app_bridge.h"
#include "bridge/redirect_rule.h"
#include "camera/camera_link.h"
#include "camera/command_frame_sender.h"
#include "session/camera_stream.h"
#include "state/camera_state.h"
#include "support/camera_datagrams.h"
#include "support/peer_socket.h"
#include "support/pushes.h"

namespace kestrelbridge::test {
namespace {

using namespace std::chrono_literals;

Bytes LongEnough(Bytes data, std::size_t size = 501) {
  data.resize(size);
  return data;
}

TEST(CameraSession, WhatCannotBeSentTakesANumberAllTheSame) {
  const auto beat = [] { SendCameraHeartbeat(); };
  const struct {
    const char* packet;
    bool command_data_received;
    void (*send)();
    const Counter& counter;
  } rows[] = {
      {"request", false, beat, GetCounters().connection_requests},
      {"keepalive", true, beat, GetCounters().keepalives},
      {"acknowledgement", true,
       [] {
         ProcessCameraDatagram(UnitDatagrams(1, MakeUnit(100, 1)).front());
         ProcessCameraDatagram(UnitHeaderDatagram(2, 0, {}));
       },
       GetCounters().acknowledgements},
      {"command", true,
       [] {
         Bytes frame = CommandFrame(2, 1, Bytes(1));
         SendCameraFrame(frame);
       },
       GetCounters().app_command_frames},
  };
  PeerSocket camera;
  for (const char* trouble : {"", "no address", "no socket"}) {
    BeCameraAt(camera);
    CameraLink& link = GetCameraLink();
    const bool sendable = *trouble == '\0';
    if (!sendable) {
      std::snprintf(link.host, sizeof link.host, "nowhere");
    }
    if (std::string_view(trouble) == "no socket") {
      link.endpoint.socket = -1;
    }
    for (const auto& row : rows) {
      SCOPED_TRACE(std::string(row.packet) + " " + trouble);
      link.command_data_received = row.command_data_received;
      const std::uint16_t number = link.outgoing_packet_counter;
      const std::uint64_t sent = row.counter.Value();
      const std::uint64_t failures = link.endpoint.counters->send_failures.Value();
      row.send();
      EXPECT_EQ(link.outgoing_packet_counter, number + 1);
      EXPECT_EQ(row.counter.Value() - sent, sendable ? 1U : 0U);
      EXPECT_EQ(link.endpoint.counters->send_failures.Value() - failures, sendable ? 0U : 1U);
    }
  }
}

TEST(CameraSession, CommandDataIsLookedAtOnceMoreThan500BytesHaveGathered) {
  const auto batteries_after = [](const Bytes& data) {
    const std::uint64_t before = GetCounters().battery_pushes.Value();
    ProcessCameraDatagram(CommandDataDatagram(1, data));
    return GetCounters().battery_pushes.Value() - before;
  };
  batteries_after(Bytes(501));  // whatever had gathered
  EXPECT_EQ(batteries_after(LongEnough(Push(kBattery), 500)), 0U);
  EXPECT_EQ(batteries_after(Bytes(1)), 1U);
  EXPECT_EQ(batteries_after(Bytes(501)), 0U) << "a batch is looked at once";
  EXPECT_EQ(batteries_after(LongEnough(Push(kBattery))), 1U);
}

// A push waits for whoever holds the record, and the phone for the push.
TEST(CameraSession, ADatagramIsTakenInBeforeThePhoneGetsIt) {
  PeerSocket camera;
  BeCameraAt(camera);
  ASSERT_EQ(InitPhoneAppBridge("127.0.0.1", camera.port(), "lo"), 0);
  const PeerSocket phone;
  phone.Send(Bytes(20), {.host = "127.0.0.1", .port = kPhoneAppPort});
  ASSERT_TRUE(Eventually(PhoneAppConnected));
  std::unique_lock record(GetCameraState().mutex);
  std::thread receiver(
      [] { OnCameraDatagram(CommandDataDatagram(1, LongEnough(Push(kStatus))), "127.0.0.1", 1); });
  EXPECT_FALSE(phone.Receive(200ms));
  record.unlock();
  receiver.join();
  EXPECT_TRUE(phone.Receive());
  EXPECT_TRUE(Eventually([] {
    PhoneAppBridgeTick();
    return !PhoneAppConnected();
  }));
}

}  // namespace
}  // namespace kestrelbridge::test
