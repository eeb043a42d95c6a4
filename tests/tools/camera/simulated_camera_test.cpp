// The simulated camera as the judge of what it receives.

#include "tools/camera/simulated_camera.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "camera/packet_format.h"
#include "support/camera_datagrams.h"
#include "support/peer_socket.h"

namespace kestrelbridge::test {
namespace {

template <typename Packet>
Bytes ToBytes(const Packet& packet) {
  return {packet.begin(), packet.end()};
}

Bytes CommandNumbered(std::uint16_t number) {
  Bytes frame = CommandFrame(0x02, 0x01, Bytes{1}, number);
  Bytes packet = ToBytes(BuildCommandPacket(frame, 3));
  packet.resize(kSentWrapperSize + frame.size());
  return packet;
}

TEST(SimulatedCamera, CountsAndTellsOfWhatItGets) {
  using Counters = tools::CameraCounters;
  const std::string twice = "bad packet: frame sequence used twice (";
  const struct {
    Bytes packet;
    bool from_stranger;
    std::uint64_t Counters::*moves;
    std::string line;  // begins so; empty: none
  } rows[] = {
      {ToBytes(BuildConnectionRequest()), false, &Counters::connection_requests,
       "connection request from 127.0.0.1:"},
      {CommandNumbered(5), false, &Counters::commands, "command: "},
      {CommandNumbered(5), false, &Counters::bad_packets, twice + "48 bytes): 30 80 30 32 "},
      {ToBytes(BuildKeepalive(3, 5)), false, &Counters::keepalives, ""},  // has its own numbers
      {ToBytes(BuildKeepalive(3, 5)), false, &Counters::bad_packets, twice + "49 bytes): 31 80 "},
      {CommandNumbered(6), false, &Counters::commands, "command: "},
      {CommandNumbered(7), true, &Counters::foreign_packets, ""},
      {ToBytes(BuildUnitAcknowledgement(3)), false, &Counters::acknowledged, ""},
      {{1, 2, 0xAB},
       false,
       &Counters::bad_packets,
       "bad packet: shorter than the start of the wrapper (3 bytes): 01 02 AB\n"},
      {{1, 2, 0xAB}, false, &Counters::bad_packets, ""},  // told once
  };
  const tools::UdpSocket socket({.address = htonl(INADDR_LOOPBACK), .port = 0});
  tools::CameraJournal journal("");
  tools::SimulatedCamera camera({}, {}, socket, journal);
  const PeerSocket daemon;
  const PeerSocket stranger;
  Counters expected;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    (row.from_stranger ? stranger : daemon)
        .Send(row.packet, {.host = "127.0.0.1", .port = socket.Local().port});
    ASSERT_TRUE(socket.WaitForDatagram(Patience()));
    testing::internal::CaptureStdout();
    camera.Receive({});
    const std::string told = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(row.line.empty() ? told.empty() : told.starts_with(row.line)) << told;
    ++(expected.*row.moves);
    EXPECT_EQ(std::memcmp(&camera.Counters(), &expected, sizeof expected), 0);
  }
  testing::internal::CaptureStdout();
  camera.BadPackets().PrintRepeats();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "bad packet, 2 times: shorter than the start of the wrapper (3 bytes): 01 02 AB\n");
}

}  // namespace
}  // namespace kestrelbridge::test
