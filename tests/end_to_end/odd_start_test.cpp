// Starts that nobody means: without standard error, with a camera that cannot be one.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "base/run_paths.h"
#include "end_to_end/daemon_stage.h"
#include "kestrelbridge/rc_block.h"
#include "support/mapped_block.h"
#include "tools/common/metrics_reading.h"

namespace kestrelbridge::test {
namespace {

// Else it would land in the first thing that the daemon opens: the remote control's block.
TEST(OddStart, WithoutStandardErrorTheLogLandsNowhere) {
  ForgetEarlierRuns();
  ChildProcess daemon({"sh", "-c", "exec \"$0\" --verbose 2>&-", ProgramPath("kestrelbridge")});
  ASSERT_TRUE(WaitForBridge(daemon.pid()));
  const std::string block = ReadFile(std::string("/dev/shm") + kRcBlockName);
  EXPECT_EQ(block, std::string(kRcBlockSize, '\0'));
}

// A pipe that is full from the start and never read: as behind a pager, or with a stopped journal.
TEST(OddStart, WithAHaltedLogItServesAndEndsAsEver) {
  ForgetEarlierRuns();
  std::array<int, 2> log{};
  ASSERT_EQ(pipe2(log.data(), O_NONBLOCK), 0);
  while (write(log[1], "#", 1) == 1) {
  }
  const std::string outlet = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(log[1]);
  std::vector<std::string> command = DaemonCommandFor(kOtherCameraPort);
  command.insert(command.begin(), {"sh", "-c", "exec \"$@\" 2>" + outlet, "sh"});
  DaemonRun run(command);
  ASSERT_TRUE(run.camera.Connect());
  RingWatcher ring;
  EXPECT_TRUE(Serves(run, ring));
  run.camera.FallSilent();
  EXPECT_EQ(run.daemon.WaitForExit(), ExitedWith(1));
}

TEST(OddStart, ASecondDaemonLeavesTheRingToTheFirst) {
  ForgetEarlierRuns();
  DaemonRun run;
  ASSERT_TRUE(run.camera.Connect());
  RingWatcher ring;
  ASSERT_TRUE(Serves(run, ring));
  const std::string width = ReadFile(kVideoWidthPath);
  {
    ChildProcess second(DaemonCommand());
    EXPECT_EQ(second.WaitForExit(), ExitedWith(2));
    EXPECT_EQ(CountLines(second.Error(), "another kestrelbridge (process " +
                                             std::to_string(run.daemon.pid()) + ") publishes here"),
              1)
        << second.Error();
  }
  EXPECT_EQ(ReadFile(kVideoWidthPath), width);
  EXPECT_TRUE(Serves(run, ring));
  run.daemon.Kill(SIGKILL);
  run.daemon.WaitForExit();
  ChildProcess next(DaemonCommand());
  EXPECT_TRUE(WaitForBridge(next.pid())) << next.Error();
}

TEST(OddStart, WhenNobodyReadsTheLogAnyMoreTheVideoGoesOn) {
  ForgetEarlierRuns();
  DaemonRun run(
      {"bash", "-c", "exec \"$0\" --port 9104 2> >(exec true)", ProgramPath("kestrelbridge")});
  ASSERT_TRUE(run.camera.Connect());  // which is said
  RingWatcher ring;
  EXPECT_TRUE(Serves(run, ring));
}

TEST(OddStart, SaysWhichAddressCannotBeSentTo) {
  ChildProcess daemon(
      DaemonCommand({"--host", "camera", "--port", "abc", "-d", "1.2.3.4.5", "-s", "65536"}));
  ASSERT_TRUE(WaitForBridge(daemon.pid())) << daemon.Error();
  for (const char* what :
       {"--host=camera is no dotted-decimal address", "--port=0 is no UDP port",
        "--dst-host=1.2.3.4.5 is no dotted", "--dst-port=65536 is no UDP port"}) {
    EXPECT_EQ(CountLines(daemon.Error(), what), 1) << what << "\n" << daemon.Error();
  }
}

// A datagram from any port of this host, also from one that belongs to another program.
void SendInTheNameOf(std::uint16_t source_port, std::uint16_t destination_port) {
  Bytes datagram(8 + 20);  // ports, length, and no check sum
  const auto store = [&](std::size_t at, std::size_t value) {
    datagram[at] = static_cast<std::uint8_t>(value >> 8);
    datagram[at + 1] = static_cast<std::uint8_t>(value);
  };
  store(0, source_port);
  store(2, destination_port);
  store(4, datagram.size());
  sockaddr_in destination{};
  destination.sin_family = AF_INET;
  destination.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int socket = ::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_UDP);
  EXPECT_EQ(sendto(socket, datagram.data(), datagram.size(), 0,
                   reinterpret_cast<const sockaddr*>(&destination), sizeof destination),
            static_cast<ssize_t>(datagram.size()));
  close(socket);
}

TEST(OddStart, TakesNoneOfItsOwnSocketsForThePhone) {
  ForgetEarlierRuns();
  DaemonRun run(DaemonCommand({"--port", std::to_string(kOtherCameraPort), "--dst-port", "9004"}));
  ASSERT_TRUE(run.camera.Connect());
  ASSERT_TRUE(WaitForBridge(run.daemon.pid())) << run.daemon.Error();
  const auto ports = UdpPortsOf(run.daemon.pid());
  ASSERT_EQ(ports.size(), 4U);
  for (const BoundPort& bound : ports) {
    SendInTheNameOf(bound.port, kPhonePort);
  }
  // Telemetry comes as well, from the first tick after the camera's command data on.
  run.camera.Send(CommandDataDatagram(1, EmptyCommandData()));
  const auto value = [](const char* name, const char* label) {
    return tools::ReadMetrics(kMetricsPath).Value(name, label).value_or(0);
  };
  EXPECT_TRUE(Eventually([&] {
    return std::filesystem::exists(kMetricsPath) &&
           value("kestrelbridge_received_datagrams_total", "link=\"phone\"") >= 10;
  }));
  EXPECT_EQ(value("kestrelbridge_relayed_datagrams_total", "direction=\"to_camera\""), 0U);
  EXPECT_EQ(value("kestrelbridge_relayed_datagrams_total", "direction=\"to_phone\""), 0U);
  EXPECT_EQ(CountLines(run.daemon.Error(), "DJI MIMO"), 0) << run.daemon.Error();
  const PeerSocket phone;
  phone.Send(Bytes(20), {.host = "127.0.0.1", .port = kPhonePort});
  EXPECT_TRUE(run.daemon.WaitForLine("DJI MIMO connection found"));
}

}  // namespace
}  // namespace kestrelbridge::test
