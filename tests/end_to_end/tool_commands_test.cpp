// kestrelctl command and rc with the real daemon: from a shell to the camera, and back.

#include <gtest/gtest.h>

#include <algorithm>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "camera/packet_format.h"
#include "end_to_end/daemon_bench.h"
#include "state/push_layout.h"

namespace kestrelbridge {
namespace {

using Options = std::vector<std::string>;

Options Tool(Options options) {
  options.insert(options.begin(), ProgramPath("kestrelctl"));
  return options;
}

// The settings push with these fields, as command data.
Bytes SettingsData(std::string_view name, std::uint32_t value) {
  Bytes payload(kSettingsPushLength - kFrameOverhead);
  const auto field = std::ranges::find(kSettingsPushFields, name, &PushField::name);
  WriteField(payload, *field, value);
  Bytes data = EmptyCommandData();
  std::ranges::copy(CommandFrame(0x02, 0, payload), data.begin());
  return CommandDataDatagram(1, data);
}

class ToolCommands : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(camera_.Connect());
    camera_.Send(CommandDataDatagram(1, EmptyCommandData()));
  }

  // True once a command frame with that set and id, and these first bytes of its payload, arrives.
  bool CameraGets(std::uint8_t set, std::uint8_t id, const Bytes& payload) {
    for (Bytes packet = camera_.Receive(); !packet.empty(); packet = camera_.Receive()) {
      const auto frame =
          std::span<const std::uint8_t>(packet).subspan(std::min(packet.size(), kSentWrapperSize));
      if (frame.size() >= kFrameOverhead + payload.size() && frame[kFrameCommandSetOffset] == set &&
          frame[kFrameCommandIdOffset] == id &&
          std::ranges::equal(frame.subspan(kFramePayloadOffset, payload.size()), payload)) {
        return true;
      }
    }
    return false;
  }

  ScriptedCamera camera_;
  ChildProcess daemon_{DaemonCommand()};
};

TEST_F(ToolCommands, LearnTheDaemonsPortFromItsTelemetry) {
  const struct {
    Options words;
    std::uint8_t id;
    Bytes payload;
  } rows[] = {
      {{"shot"}, 0x01, {0x01}},
      {{"wb", "custom", "5600"}, 0x2C, {0x06, 0x38}},
      {{"ev", "-0.3"}, 0x2E, {0x0F}},
      {{"--json", R"({"cmd":"iso","param":"400"})"}, 0x2A, {0x05}},
      {{"--force", "iso", "12800"}, 0x2A, {0x00}},
  };
  for (const auto& row : rows) {
    Options options = {"command"};
    options.insert(options.end(), row.words.begin(), row.words.end());
    ChildProcess command(Tool(options));
    EXPECT_EQ(command.WaitForExit(), ExitedWith(0)) << command.Error();
    EXPECT_TRUE(CameraGets(0x02, row.id, row.payload)) << row.words.back();
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
  EXPECT_TRUE(CameraGets(0x02, 0x02, {0x01}));
}

TEST_F(ToolCommands, WaitUntilTheTelemetryShowsTheEffect) {
  ChildProcess command(Tool({"command", "iso", "400", "--wait", "--timeout", "60"}));
  ASSERT_TRUE(CameraGets(0x02, 0x2A, {0x05}));
  EXPECT_TRUE(command.IsRunning());
  camera_.Send(SettingsData("iso_set", 5));
  EXPECT_EQ(command.WaitForExit(), ExitedWith(0)) << command.Error();
  EXPECT_EQ(CountLines(command.Output(), ": iso_set=400"), 1) << command.Output();
}

TEST_F(ToolCommands, EndWith3WhenTheEffectIsNotSeenInTime) {
  camera_.Send(SettingsData("iso_set", 3));
  ChildProcess command(Tool({"command", "iso", "400", "--wait", "--timeout", "3"}));
  EXPECT_EQ(command.WaitForExit(), ExitedWith(3));
  EXPECT_EQ(
      CountLines(command.Error(), "within 3 s: iso_set=400; telemetry last showed iso_set=100"), 1)
      << command.Error();
}

TEST_F(ToolCommands, AreRefusedBeforeAnythingIsSent) {
  const struct {
    Options options;
    const char* message;
  } rows[] = {
      {{"command", "power", "sleep", "--wait"}, "does not show an effect"},
      {{"command", "--json", "{}", "--wait"}, "does not show an effect"},
      {{"command", "iso", "401"}, "takes one of"},
      {{"command", "zoom", "1"}, "no command \"zoom\""},
      {{"command"}, "which command?"},
      {{"command", "shot", "--to", "localhost:1"}, "--to"},
      {{"command", "shot", "--json", "{}"}, "excludes"},
  };
  for (const auto& row : rows) {
    ChildProcess command(Tool(row.options));
    EXPECT_EQ(command.WaitForExit(), ExitedWith(1));
    EXPECT_GE(CountLines(command.Error(), row.message), 1) << command.Error();
  }
  EXPECT_EQ(CountLines(daemon_.Error(), "JSON commands"), 0);
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
  EXPECT_TRUE(CameraGets(0x02, 0x2A, {0x03})) << "from no ISO to the second step, 100";
  ChildProcess slider(Tool({"rc", "--slider", "1"}));
  EXPECT_EQ(slider.WaitForExit(), ExitedWith(0));
  EXPECT_TRUE(CameraGets(0x02, 0x2E, {0x19})) << "+3.0";
}

}  // namespace
}  // namespace kestrelbridge
