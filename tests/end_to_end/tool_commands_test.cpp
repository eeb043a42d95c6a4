// kestrelctl command and rc with the real daemon: from a shell to the camera, and back.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "end_to_end/daemon_bench.h"

namespace kestrelbridge {
namespace {

using Options = std::vector<std::string>;

Options Tool(Options options) {
  options.insert(options.begin(), ProgramPath("kestrelctl"));
  return options;
}

class ToolCommands : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(camera_.Connect());
    camera_.Send(CommandDataDatagram(1, EmptyCommandData()));
  }

  ScriptedCamera camera_;
  ChildProcess daemon_{DaemonCommand()};
};

TEST_F(ToolCommands, LearnTheDaemonsPortFromItsTelemetry) {
  const struct {
    Options words;
    std::uint8_t id, code;
  } rows[] = {{{"command", "ev", "-0.3"}, 0x2E, 0x0F},
              {{"command", "--json", R"({"cmd":"iso","param":"400"})"}, 0x2A, 0x05},
              {{"command", "--force", "iso", "12800"}, 0x2A, 0x00}};
  for (const auto& row : rows) {
    ChildProcess command(Tool(row.words));
    EXPECT_EQ(command.WaitForExit(), ExitedWith(0)) << command.Error();
    EXPECT_TRUE(CameraGetsCommand(camera_, row.id, row.code)) << row.words.back();
  }
}

TEST_F(ToolCommands, GoWhereTheyAreToldWhileTheMainApplicationListens) {
  const UdpSocket main_application({.host = "127.0.0.1", .port = 5000});
  ChildProcess refused(Tool({"command", "shot"}));
  EXPECT_EQ(refused.WaitForExit(), ExitedWith(1));
  EXPECT_EQ(CountLines(refused.Error(), "in use, probably by the main application"), 1);
  EXPECT_EQ(CountLines(refused.Error(), "--to HOST:PORT"), 1) << refused.Error();

  const auto telemetry = main_application.Receive();
  ASSERT_TRUE(telemetry);
  const std::string port = std::to_string(telemetry->sender.port);
  ChildProcess command(Tool({"command", "record", "start", "--to", "127.0.0.1:" + port}));
  EXPECT_EQ(command.WaitForExit(), ExitedWith(0)) << command.Error();
  EXPECT_TRUE(CameraGetsCommand(camera_, 0x02, 0x01));
}

TEST_F(ToolCommands, EndWith3WhenTheEffectIsNotSeenInTime) {
  ChildProcess command(Tool({"command", "iso", "400", "--wait", "--timeout", "1.5"}));
  EXPECT_EQ(command.WaitForExit(), ExitedWith(3));
  EXPECT_EQ(
      CountLines(command.Error(), "within 1.5 s: iso_set=400; telemetry last showed iso_set="), 1)
      << command.Error();
}

TEST(ToolCommandsAlone, SayThatNoTelemetryComes) {
  ChildProcess command(Tool({"command", "shot"}));
  EXPECT_EQ(command.WaitForExit(), ExitedWith(1));
  EXPECT_EQ(CountLines(command.Error(), "no telemetry has arrived on 127.0.0.1:5000 within 3 s"), 1)
      << command.Error();
}

TEST_F(ToolCommands, TheRemoteControlsChannelsReachTheCamera) {
  ChildProcess press(Tool({"rc", "157=1"}));
  EXPECT_EQ(press.WaitForExit(), ExitedWith(0));
  EXPECT_TRUE(CameraGetsCommand(camera_, 0x2A, 0x03)) << "from no ISO to the second step, 100";
  ChildProcess slider(Tool({"rc", "--slider", "1"}));
  EXPECT_EQ(slider.WaitForExit(), ExitedWith(0));
  EXPECT_TRUE(CameraGetsCommand(camera_, 0x2E, 0x19)) << "+3.0";
}

}  // namespace
}  // namespace kestrelbridge
