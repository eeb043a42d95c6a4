// The session with the camera, packet by packet.

#include <gtest/gtest.h>

#include <chrono>

#include "base/byte_order.h"
#include "camera/packet_format.h"
#include "end_to_end/daemon_stage.h"
#include "kestrelbridge/rc_block.h"
#include "support/mapped_block.h"
#include "tools/wire/packet_check.h"

namespace kestrelbridge::test {
namespace {

TEST(Session, AsksForTheCameraAlsoWhileAPhoneIsThere) {
  DaemonRun run;
  const PeerSocket phone;
  int requests = 0;
  EXPECT_TRUE(Eventually([&] {
    const bool found = CountLines(run.daemon.Error(), "DJI MIMO connection found") > 0;
    phone.Send(Bytes(20), {.host = "127.0.0.1", .port = kPhonePort});
    const Bytes packet = run.camera.Receive(std::chrono::milliseconds{100});
    const auto type = tools::CheckPacket(packet).type;
    requests += found && type == tools::PacketType::kConnectionRequest ? 1 : 0;
    return requests == 3;
  })) << requests;
}

TEST(Session, TheRemoteControlWaitsForCommandData) {
  ForgetEarlierRuns();
  DaemonRun run;
  ASSERT_TRUE(run.camera.Connect());
  StoreRcChannel(MappedBlock(kRcBlockName).data(), kRcIsoNext, 1);
  for (int request = 0; request < 2; ++request) {
    EXPECT_EQ(tools::CheckPacket(run.camera.Receive()).type, tools::PacketType::kConnectionRequest);
  }
  run.camera.Send(CommandDataDatagram(1, EmptyCommandData()));
  EXPECT_TRUE(CameraGetsCommand(run.camera, 0x2A));
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
  const PeerSocket sender;
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
