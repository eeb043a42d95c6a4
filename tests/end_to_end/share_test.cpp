// The share between the real daemon and a main application.

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/run_paths.h"
#include "end_to_end/daemon_stage.h"
#include "state/vocabulary.h"

namespace kestrelbridge::test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kResumesWithin{2'000};
constexpr std::uint8_t kSetIsoId = 0x2A;

std::vector<std::string> ShareCommand() { return {ProgramPath("kestrelshare"), "--group", ""}; }

std::vector<std::string> SharedDaemonCommand(std::uint16_t camera_port) {
  return DaemonCommand({"--port", std::to_string(camera_port), "--dst-port=5001"});
}

// A main application that answers to where telemetry comes from, and a camera that shows what it
// got.
struct Ends {
  // How long it takes from now until telemetry comes and a command gets through.
  milliseconds TimeUntilBothWork(int iso) {
    const auto start = Clock::now();
    const std::string text = R"(!{"cmd":"iso","param":")" + std::to_string(iso) + R"("})";
    while (main_app.Receive(milliseconds{0})) {  // what came before
    }
    const bool works = Eventually([&] {
      const auto telemetry = main_app.Receive(milliseconds{100});
      return telemetry && main_app.Send(Bytes(text.begin(), text.end()), telemetry->sender) &&
             HasArrived(EncodeIso(iso));
    });
    EXPECT_TRUE(works) << "iso " << iso;
    return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
  }

  bool HasArrived(std::uint8_t iso_code) {
    return Eventually([&] { return CameraGetsCommand(camera, kSetIsoId, iso_code); },
                      milliseconds{200});
  }

  ScriptedCamera camera{kOtherCameraPort};
  PeerSocket main_app{{.host = "127.0.0.1", .port = 5000}};
};

TEST(SharedTelemetry, ResumesWhicheverOfThemStartsAgain) {
  ForgetEarlierRuns();
  Ends ends;
  std::optional<ChildProcess> share(std::in_place, ShareCommand());
  std::optional<ChildProcess> daemon(std::in_place, SharedDaemonCommand(kOtherCameraPort));
  ASSERT_TRUE(ends.camera.Connect()) << daemon->Error();
  ends.camera.Send(CommandDataDatagram(1, EmptyCommandData()));
  ends.TimeUntilBothWork(100);  // the share was first
  share->Kill(SIGKILL);
  ASSERT_TRUE(share->WaitForExit());
  usleep(300'000);  // telemetry goes nowhere meanwhile
  share.emplace(ShareCommand());
  EXPECT_LT(ends.TimeUntilBothWork(200), kResumesWithin + Patience() / 6);  // the daemon was
  daemon->Kill(SIGKILL);
  ASSERT_TRUE(daemon->WaitForExit());
  ends.camera.FallSilent();
  daemon.emplace(SharedDaemonCommand(kOtherCameraPort));
  ASSERT_TRUE(ends.camera.Connect()) << daemon->Error();
  ends.camera.Send(CommandDataDatagram(2, EmptyCommandData()));
  ends.TimeUntilBothWork(400);  // from another port of the daemon
}

// While the main application has its place.
TEST(SharedTelemetry, IsThereForTheToolsBesideAMainApplication) {
  ForgetEarlierRuns();
  const PeerSocket main_app({.host = "127.0.0.1", .port = 5000});
  ChildProcess share(ShareCommand());
  ASSERT_TRUE(Eventually([] { return access(kShareControlPath, F_OK) == 0; })) << share.Error();
  ChildProcess camera(CameraTool(kTestPattern, 30, {"--loop"}, kCameraPort));
  ASSERT_TRUE(camera.WaitForLine("waiting for a connection request"));
  ChildProcess daemon(SharedDaemonCommand(kCameraPort));
  ChildProcess telemetry(Kestrelctl({"telemetry", "--json", "--count", "12"}));
  EXPECT_EQ(telemetry.WaitForExit(), ExitedWith(0)) << telemetry.Error();
  EXPECT_GE(CountLines(telemetry.Output(), R"("type":"text","sender":"kestrelshare")"), 1)
      << telemetry.Output();
  ChildProcess command(Kestrelctl({"command", "iso", "400", "--wait", "--timeout", "30"}));
  EXPECT_EQ(command.WaitForExit(2 * Patience()), ExitedWith(0)) << command.Error();
  EXPECT_EQ(CountLines(command.Output(), std::string("sent to ") + kShareControlPath), 1);
  ChildProcess repeated(Kestrelctl({"command", "iso", "200", "--repeat", "50"}));
  EXPECT_EQ(repeated.WaitForExit(), ExitedWith(0)) << repeated.Error();
  EXPECT_TRUE(daemon.WaitForLine("JSON commands from app", Patience(), 51)) << daemon.Error();
  // Without the share as ever: who holds the place keeps others out.
  share.Kill(SIGKILL);
  ASSERT_TRUE(share.WaitForExit());
  ChildProcess refused(Kestrelctl({"telemetry", "--count", "1"}));
  EXPECT_EQ(refused.WaitForExit(), ExitedWith(1));
  EXPECT_EQ(CountLines(refused.Error(), "127.0.0.1:5000: address in use"), 1) << refused.Error();
}

}  // namespace
}  // namespace kestrelbridge::test
