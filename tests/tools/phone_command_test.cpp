// kestrelctl phone, run for real; the test is the camera.
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include "base/byte_order.h"
#include "camera/packet_format.h"
#include "support/camera_datagrams.h"
#include "support/child_process.h"
#include "support/udp_socket.h"
#include "tools/packet_check.h"

namespace kestrelbridge {
namespace {

class PhoneCommand : public testing::Test {
 protected:
  std::vector<std::string> Command(const std::vector<std::string>& options = {}) const {
    std::vector<std::string> command = {ProgramPath("kestrelctl"), "phone", "--to",
                                        "127.0.0.1:" + std::to_string(camera_.port())};
    command.insert(command.end(), options.begin(), options.end());
    return command;
  }

  // The phone's next packet of that type, which must be right in every byte.
  ReceivedDatagram NextOf(PacketType type) const {
    while (auto received = camera_.Receive()) {
      const CheckedPacket packet = CheckPacket(received->bytes);
      EXPECT_NE(packet.type, PacketType::kBad) << packet.fault;
      if (packet.type == type) {
        return *received;
      }
    }
    ADD_FAILURE() << "no such packet came";
    return {.bytes = Bytes(kSentWrapperSize), .sender = {}};
  }

  const test_support::UdpSocket camera_;
};

TEST_F(PhoneCommand, KeepsTheCameraAwakeAcknowledgesUnitsAndTellsTheStrangersApart) {
  ChildProcess phone(Command({"--rate", "50", "--output", "-"}));
  const UdpAddress there = NextOf(PacketType::kKeepalive).sender;
  const test_support::UdpSocket stranger;
  const Bytes unit = MakeUnit(4000, 1);
  for (const Bytes& datagram : UnitDatagrams(500, unit)) {
    stranger.Send(datagram, {.host = "127.0.0.1", .port = there.port});
    camera_.Send(datagram, there);
  }
  const Bytes acknowledgement = NextOf(PacketType::kUnitAcknowledgement).bytes;
  EXPECT_EQ(LoadLe16(acknowledgement, kWrapperSequenceOffset), 502);
  EXPECT_EQ(LoadLe16(NextOf(PacketType::kKeepalive).bytes, kWrapperSequenceOffset), 502);
  phone.Kill(SIGINT);
  EXPECT_EQ(phone.WaitForExit(), ExitedWith(0));
  EXPECT_EQ(phone.Output(), std::string(unit.begin(), unit.end()));
  for (const char* line : {"\ndatagrams: 3\n", "\nvideo: 3\n", "\nunits: 1\n", "\ngaps: 0\n",
                           "\nforeign_datagrams: 3\n", "\nacknowledgements_sent: 1\n"}) {
    EXPECT_NE(phone.Error().find(line), std::string::npos) << line << phone.Error();
  }
  EXPECT_EQ(CountLines(phone.Error(),
                       "warning: a datagram from 127.0.0.1:" + std::to_string(stranger.port())),
            1)
      << phone.Error();
}

TEST_F(PhoneCommand, SendsFromTheGivenPortAndOnlyKeepalivesWhenAsked) {
  const std::uint16_t port = test_support::UdpSocket().port();  // free again at once
  ChildProcess phone(
      Command({"--local-port", std::to_string(port), "--no-acknowledge", "--duration", "1.5"}));
  const UdpAddress there = NextOf(PacketType::kKeepalive).sender;
  EXPECT_EQ(there.port, port);
  for (const Bytes& datagram : UnitDatagrams(1, MakeUnit(300, 1))) {
    camera_.Send(datagram, there);
  }
  EXPECT_TRUE(phone.WaitForLine("1 s: datagrams 1, 0.00 Mbit/s, gaps 0, reordered 0, foreign 0"));
  EXPECT_EQ(phone.WaitForExit(), ExitedWith(0));
  EXPECT_EQ(CountLines(phone.Output(), "units: 1"), 1) << phone.Output();
  EXPECT_EQ(CountLines(phone.Output(), "acknowledgements_sent: 0"), 1) << phone.Output();
}

TEST_F(PhoneCommand, RefusesWhatItCannotSendTo) {
  for (const char* to : {"192.168.2.1", "camera:9004", "127.0.0.1:0"}) {
    ChildProcess phone({ProgramPath("kestrelctl"), "phone", "--to", to});
    EXPECT_EQ(phone.WaitForExit(), ExitedWith(1));
    EXPECT_EQ(CountLines(phone.Error(), to), 1) << phone.Error();
  }
}

}  // namespace
}  // namespace kestrelbridge
