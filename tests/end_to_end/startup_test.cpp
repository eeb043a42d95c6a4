// The daemon's start as its user sees it: options, log lines, exit codes.

#include <gtest/gtest.h>

#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

#include "base/run_paths.h"
#include "base/text_file.h"
#include "end_to_end/daemon_bench.h"
#include "video/frame_buffers.h"

namespace kestrelbridge {
namespace {

namespace fs = std::filesystem;

constexpr char kUsage[] =
    "DJI Pocket Osmo Wi-Fi receiver\n"
    "Usage:\n"
    "-i | --iface=<interface> default wifi0\n"
    "-h | --host=<pocketosmo_host> default 192.168.2.1\n"
    "-p | --port=<pocketosmo_port> default 9004\n"
    "-d | --dst-host=<destination_host>\n"
    "-s | --dst-port=<destination_port>\n"
    "-v | --verbose\n"
    "-? | --help - show this help\n";

// What every start begins with; the model is empty on anything but a board.
std::string Banner() {
  char model[100];
  ReadTextFile(kBoardModelPath, model);
  return std::string("\nOsmo Action Wi-Fi client\nBoard model: ") + model + "\nBoard supported\n";
}

// Gives every test an empty /run/kestrelbridge and /dev/shm, also when all run in one program.
class StartUp : public testing::Test {
 protected:
  void SetUp() override { ForgetEarlierRuns(); }
  void TearDown() override { ForgetEarlierRuns(); }
};

struct RefusedStart {
  const char* name;
  std::vector<std::string> options;
  std::string after_banner;  // the whole rest of standard error, or a part of it:
  bool is_whole = true;
};
std::ostream& operator<<(std::ostream& out, const RefusedStart& row) { return out << row.name; }

class RefusedCommandLine : public StartUp, public testing::WithParamInterface<RefusedStart> {};

TEST_P(RefusedCommandLine, EndsWithCodeOneAndSaysWhy) {
  ChildProcess daemon(DaemonCommand(GetParam().options));
  EXPECT_EQ(daemon.WaitForExit(), ExitedWith(1));
  const std::string error = daemon.Error();
  ASSERT_TRUE(error.starts_with(Banner())) << error;
  const std::string rest = error.substr(Banner().size());
  if (GetParam().is_whole) {
    EXPECT_EQ(rest, GetParam().after_banner);
  } else {
    EXPECT_NE(rest.find(GetParam().after_banner), std::string::npos) << rest;
    EXPECT_TRUE(rest.ends_with(kUsage)) << rest;
  }
}

const std::string kNoDestination = "Destination host or port not set\n";

INSTANTIATE_TEST_SUITE_P(
    StartUp, RefusedCommandLine,
    testing::Values(
        RefusedStart{"ShortHelp", {"-?"}, kUsage},  //
        RefusedStart{"LongHelp", {"--help"}, kUsage},
        RefusedStart{"HelpAfterGoodOptions", {"-v", "-p", "9005", "--help"}, kUsage},
        RefusedStart{"UnknownOption", {"--colour"}, "'--colour'", false},
        RefusedStart{"MissingArgument", {"--port"}, "'--port'", false},
        RefusedStart{"DestinationPortZero", {"--dst-port=0"}, kNoDestination},
        RefusedStart{"DestinationPortWithoutDigits", {"--dst-port=abc"}, kNoDestination},
        RefusedStart{"LastDestinationPortCounts", {"-s", "5000", "-s", "0"}, kNoDestination},
        RefusedStart{"InterfaceOfTen", {"-i", "0123456789"}, "--iface takes at most 9 ", false},
        RefusedStart{
            "HostOf22", {"-h", "0123456789012345678901"}, "--host takes at most 21 ", false},
        RefusedStart{"DestinationOf20",
                     {"-d", "01234567890123456789"},
                     "--dst-host takes at most 19 ",
                     false}),
    [](const auto& row) { return row.param.name; });

// True when the lines stand in the text in this order, whatever else stands between them.
testing::AssertionResult HasLinesInOrder(const std::string& text,
                                         const std::vector<std::string>& lines) {
  std::size_t position = 0;
  for (const std::string& line : lines) {
    const std::size_t found = text.find("\n" + line + "\n", position);
    if (found == std::string::npos) {
      return testing::AssertionFailure() << "no \"" << line << "\" in its place in:\n" << text;
    }
    position = found + 1;
  }
  return testing::AssertionSuccess();
}

TEST_F(StartUp, SaysLittleWithoutOptions) {
  const ScriptedCamera camera;
  ChildProcess daemon(DaemonCommand());
  ASSERT_TRUE(daemon.WaitForLine("Init frame buffer for transcoding"));
  const std::string error = daemon.Error();
  EXPECT_TRUE(error.starts_with(Banner())) << error;
  EXPECT_TRUE(HasLinesInOrder(
      error, {"Board supported", "Init telemetry buffer", "Init frame buffer 60003624 bytes",
              "Init frame buffer for transcoding 13003624 bytes"}));
  for (const char* verbose : {"Using interface", "Init connection", "Done", "Init data bridge"}) {
    EXPECT_EQ(CountLines(error, verbose), 0) << error;
  }
  char supported[4];
  ReadTextFile(kBoardSupportedPath, supported);
  EXPECT_STREQ(supported, "1");
}

TEST_F(StartUp, TellsItsStepsInOrderWhenVerbose) {
  ScriptedCamera camera(kOtherCameraPort);
  ChildProcess daemon(DaemonCommand({"-v", "--iface=ninechars", "-h", kCameraAddress, "--port",
                                     "9104", "-d", "127.0.0.2", "--dst-port=5001 and more"}));
  ASSERT_TRUE(camera.Connect());
  ASSERT_TRUE(daemon.WaitForLine("Init connection to camera"));
  EXPECT_TRUE(HasLinesInOrder(
      daemon.Error(),
      {"Board supported", "Using interface ninechars",
       "Init connection to main application 127.0.0.2:5001", "Done", "Init telemetry buffer",
       "Init frame buffer 60003624 bytes", "Init frame buffer for transcoding 13003624 bytes",
       "Init connection to camera 192.168.2.1:9104 via iface ninechars"}));
}

TEST_F(StartUp, SendsToTheLowBitsOfALargeCameraPortAndSaysSo) {
  ScriptedCamera camera;
  ChildProcess daemon(DaemonCommand({"--port=74540"}));  // 65536 + 9004
  EXPECT_TRUE(camera.Connect());
  EXPECT_TRUE(daemon.WaitForLine("--port=74540 is no UDP port, packets go to port 9004"));
}

TEST_F(StartUp, EndsWithCodeTwoWhenABlockCannotBeOpened) {
  fs::create_directory(std::string("/dev/shm/") + kTranscodingBlockName);
  ChildProcess daemon(DaemonCommand());
  EXPECT_EQ(daemon.WaitForExit(), ExitedWith(2));
  EXPECT_TRUE(daemon.Error().ends_with("\nFailed to init telemetry buffer\n")) << daemon.Error();
}

// The daemon with a limit of open files, which makes a certain socket fail.
ChildProcess StartWithOpenFiles(int limit) {
  return ChildProcess({"sh", "-c", "ulimit -n " + std::to_string(limit) + "; exec \"$0\" -v",
                       ProgramPath("kestrelbridge")});
}

TEST_F(StartUp, EndsWithCodeOneWhenAMainApplicationEndpointCannotBeOpened) {
  ChildProcess daemon =
      StartWithOpenFiles(5);  // beside the standard three: remote control, one socket
  EXPECT_EQ(daemon.WaitForExit(), ExitedWith(1));
  EXPECT_TRUE(daemon.Error().ends_with(":5000\nCreating new shared raw RC\nFailed\n"))
      << daemon.Error();
}

TEST_F(StartUp, EndsWithCodeOneAndNoWordWhenTheCameraEndpointCannotBeOpened) {
  ChildProcess daemon = StartWithOpenFiles(8);  // two sockets and three blocks
  EXPECT_EQ(daemon.WaitForExit(), ExitedWith(1));
  EXPECT_TRUE(daemon.Error().ends_with(" via iface wifi0\n")) << daemon.Error();
}

}  // namespace
}  // namespace kestrelbridge
