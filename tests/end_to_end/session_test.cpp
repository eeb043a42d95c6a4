// The session with the camera, packet by packet.

#include <gtest/gtest.h>

#include <chrono>

#include "base/byte_order.h"
#include "camera/packet_format.h"
#include "end_to_end/daemon_stage.h"
#include "tools/wire/packet_check.h"

namespace kestrelbridge::test {
namespace {

using Clock = std::chrono::steady_clock;

TEST(Session, AsksForTheCameraEverySecondForAsLongAsItTakes) {
  ScriptedCamera camera;
  ChildProcess daemon(DaemonCommand());
  EXPECT_EQ(tools::CheckPacket(camera.Receive()).type, tools::PacketType::kConnectionRequest);
  const auto first = Clock::now();
  for (int request = 0; request < 3; ++request) {
    EXPECT_EQ(tools::CheckPacket(camera.Receive()).type, tools::PacketType::kConnectionRequest);
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
  const tools::CheckedPacket checked = tools::CheckPacket(keepalive);
  ASSERT_EQ(checked.type, tools::PacketType::kKeepalive) << checked.fault;
  EXPECT_EQ(LoadLe16(keepalive, kWrapperSequenceOffset), 0xBEEF);
  const int sent_before = camera.packets_received() - 1;
  EXPECT_GE(sent_before, 2);
  EXPECT_EQ(LoadLe16(checked.frame, kFrameSequenceOffset), sent_before);
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
}  // namespace kestrelbridge::test
