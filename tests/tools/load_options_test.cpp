// What a long run under load asks of the stand-ins.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "support/camera_datagrams.h"
#include "support/child_process.h"
#include "support/udp_socket.h"

namespace kestrelbridge {
namespace {

std::string PlaceOf(const test_support::UdpSocket& socket) {
  return "127.0.0.1:" + std::to_string(socket.port());
}

std::vector<std::string> Kestrelctl(std::vector<std::string> options) {
  options.insert(options.begin(), ProgramPath("kestrelctl"));
  return options;
}

TEST(LoadOptions, ACommandIsSentAsOftenAndAsFastAsAsked) {
  const test_support::UdpSocket daemon;
  const auto before = std::chrono::steady_clock::now();
  ChildProcess command(Kestrelctl(
      {"command", "iso", "400", "--to", PlaceOf(daemon), "--repeat", "50", "--rate", "100"}));
  for (int i = 0; i < 50; ++i) {
    ASSERT_TRUE(daemon.Receive()) << i;
  }
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds{490});
  EXPECT_EQ(command.WaitForExit(), ExitedWith(0));
  EXPECT_FALSE(daemon.Receive(std::chrono::milliseconds{0}));
  EXPECT_EQ(CountLines(command.Output(), "sent 50 times to " + PlaceOf(daemon)), 1);
}

TEST(LoadOptions, APhoneThatFallsSilentStillListens) {
  const test_support::UdpSocket camera;
  ChildProcess phone(Kestrelctl({"phone", "--to", PlaceOf(camera), "--rate", "100",
                                 "--silence-after", "0.3", "--duration", "2"}));
  const auto first = camera.Receive();
  ASSERT_TRUE(first);
  ASSERT_TRUE(Eventually([&] { return !camera.Receive(std::chrono::milliseconds{300}); }));
  for (const Bytes& datagram : UnitDatagrams(1, MakeUnit(4000, 1))) {
    camera.Send(datagram, first->sender);
  }
  EXPECT_EQ(phone.WaitForExit(), ExitedWith(0));
  EXPECT_EQ(CountLines(phone.Output(), "units: 1"), 1) << phone.Output();
  EXPECT_EQ(CountLines(phone.Output(), "acknowledgements_sent: 0"), 1) << phone.Output();
}

}  // namespace
}  // namespace kestrelbridge
