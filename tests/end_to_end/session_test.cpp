// The session with the camera, packet by packet.

#include <gtest/gtest.h>

#include <chrono>

#include "base/byte_order.h"
#include "camera/crc.h"
#include "end_to_end/daemon_bench.h"

namespace kestrelbridge {
namespace {

using Clock = std::chrono::steady_clock;

const Bytes kConnectionRequestBytes = {
    0x30, 0x80, 0x30, 0x32, 0x00, 0x00, 0x00, 0xB2,  // length 48, kind 0, check
    0x80, 0x91, 0x64, 0x00, 0x64, 0x00, 0xC0, 0x05,  //
    0x14, 0x00, 0x00, 0x0A, 0x00, 0x00, 0x01, 0x90,  //
    0x01, 0xC0, 0x05, 0x14, 0x00, 0x00, 0x64, 0x00,  //
    0x14, 0x00, 0x64, 0x00, 0xC0, 0x05, 0x14, 0x00,  //
    0x00, 0x64, 0x00, 0x01, 0x01, 0x04, 0x0A, 0x02};

TEST(Session, AsksForTheCameraEverySecondForAsLongAsItTakes) {
  ScriptedCamera camera;
  ChildProcess daemon(DaemonCommand());
  EXPECT_EQ(camera.Receive(), kConnectionRequestBytes);
  const auto first = Clock::now();
  for (int request = 0; request < 3; ++request) {
    EXPECT_EQ(camera.Receive(), kConnectionRequestBytes);
  }
  // Three seconds, less what the first was late.
  EXPECT_GE(Clock::now() - first, std::chrono::seconds{2});
  EXPECT_TRUE(daemon.IsRunning());
}

// The next packet of this size; the camera counts those that it passes over.
Bytes ReceiveOfSize(ScriptedCamera& camera, std::size_t size) {
  Bytes packet;
  do {
    packet = camera.Receive();
  } while (!packet.empty() && packet.size() != size);
  return packet;
}

TEST(Session, KeepsTheLinkAliveOnceCommandDataHasArrived) {
  ScriptedCamera camera;
  ChildProcess daemon(DaemonCommand());
  ASSERT_TRUE(camera.Connect());
  camera.SendUnit(MakeUnit(2000, 1));  // its acknowledgement counts as a packet, too
  camera.SendNextHeader();
  ASSERT_FALSE(ReceiveOfSize(camera, 34).empty());
  camera.Send(CommandDataDatagram(0xBEEF, EmptyCommandData()));
  const Bytes keepalive = ReceiveOfSize(camera, 49);
  ASSERT_EQ(keepalive.size(), 49U);
  const int sent_before = camera.packets_received() - 1;
  EXPECT_GE(sent_before, 2);

  Bytes expected = {0x31, 0x80, 0x30, 0x32, 0x00, 0x00, 0x04, 0xB7,  // length 49, kind 4, check
                    0xEF, 0xBE, 0xEF, 0xBE, 0x00, 0x00, 0x00, 0x00,  // the camera's sequence, twice
                    0x80, 0x91, 0x80, 0x91, 0x00, 0x00, 0x00, 0x00,  //
                    0xE8, 0x91, 0xE8, 0x91, 0x00, 0x00, 0x00, 0x00,  //
                    0x0F, 0x00,                                      // frame length
                    0x55, 0x0F, 0x04, 0xA2, 0x02, 0x01, 0x00, 0x00,  // frame sequence
                    0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00};       // CRC-16
  StoreLe16(expected, 40, static_cast<std::uint16_t>(sent_before));
  StoreLe16(expected, 47, FrameCrc16(std::span(expected).subspan(34, 13)));
  EXPECT_EQ(keepalive, expected);
}

TEST(Session, EndsWithCodeThreeAtAnEmptyDatagramOnAnyPort) {
  const UdpSocket sender;
  for (std::size_t index = 0, ports = 1; index < ports; ++index) {
    ChildProcess daemon(DaemonCommandFor(kOtherCameraPort));
    ASSERT_TRUE(WaitForBridge(daemon.pid())) << daemon.Error();
    const std::vector<BoundPort> bound = UdpPortsOf(daemon.pid());
    ports = bound.size();
    ASSERT_EQ(ports, 4U);
    sender.Send({}, {.host = "127.0.0.1", .port = bound[index].port});
    EXPECT_EQ(daemon.WaitForExit(), ExitedWith(3));
    EXPECT_TRUE(daemon.Error().ends_with("\nUDP read failed\n")) << daemon.Error();
  }
}

}  // namespace
}  // namespace kestrelbridge
