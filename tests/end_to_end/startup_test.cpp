// The daemon's start as its user sees it: options, log lines, exit codes.

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "base/run_paths.h"
#include "base/text_file.h"
#include "end_to_end/daemon_stage.h"

namespace kestrelbridge::test {
namespace {

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

TEST(StartUp, RefusesAWrongCommandLineWithCodeOneAndSaysWhy) {
  const std::string no_destination = "Destination host or port not set\n";
  const struct {
    std::vector<std::string> options;
    std::string message;  // whole lines: all that follows the banner; else the usage comes last
  } rows[] = {{{"-?"}, kUsage},
              {{"--colour"}, "'--colour'"},
              {{"--port"}, "'--port'"},
              {{"--dst-port=0"}, no_destination},
              {{"--dst-port=abc"}, no_destination},
              {{"-s", "5000", "-s", "0"}, no_destination},
              {{"-i", "0123456789"}, "--iface takes at most 9 "},
              {{"-h", "0123456789012345678901"}, "--host takes at most 21 "},
              {{"-d", "01234567890123456789"}, "--dst-host takes at most 19 "}};
  for (const auto& row : rows) {
    ChildProcess daemon(DaemonCommand(row.options));
    EXPECT_EQ(daemon.WaitForExit(), ExitedWith(1));
    const std::string error = daemon.Error();
    ASSERT_TRUE(error.starts_with(Banner())) << error;
    const std::string rest = error.substr(Banner().size());
    EXPECT_TRUE(row.message.ends_with('\n')
                    ? rest == row.message
                    : rest.find(row.message) != std::string::npos && rest.ends_with(kUsage))
        << error;
  }
}

TEST(StartUp, ShowsUpTo99CharactersOfTheBoardModel) {
  ASSERT_EQ(mount("tmpfs", "/sys", "tmpfs", 0, nullptr), 0);
  std::filesystem::create_directories(std::filesystem::path(kBoardModelPath).parent_path());
  const std::string longest(99, 'm');
  for (const auto& [file, shown] : std::vector<std::pair<std::string, std::string>>{
           {std::string("Raspberry Pi 4\0 5", 17), "Raspberry Pi 4"},
           {"", ""},
           {longest, longest},
           {longest + "n", longest},
           {longest + std::string(200, 'n'), longest}}) {
    WriteTextFile(kBoardModelPath, file);
    ChildProcess daemon(DaemonCommand({"--help"}));
    EXPECT_EQ(daemon.WaitForExit(), ExitedWith(1));
    EXPECT_EQ(daemon.Error(),
              "\nOsmo Action Wi-Fi client\nBoard model: " + shown + "\nBoard supported\n" + kUsage);
  }
  umount("/sys");
}

// ThreadSanitizer and qemu have a thread of their own in the process; unlike the daemon's, it has
// no name of its own.
bool IsForeign(const std::filesystem::path& task, pid_t process) {
  const std::filesystem::path main_thread = "/proc/" + std::to_string(process);
#ifdef __SANITIZE_THREAD__
  const bool has_foreign_ones = true;
#else
  const std::string program = std::filesystem::read_symlink(main_thread / "exe").filename();
  const bool has_foreign_ones = program.starts_with("qemu-");
#endif
  return has_foreign_ones && task.filename() != main_thread.filename() &&
         ReadFile(task / "comm") == ReadFile(main_thread / "comm");
}

// What all threads of the process may do, put together, as the kernel tells it.
std::uint64_t CapabilitiesOf(pid_t process) {
  std::uint64_t all = 0;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
    if (IsForeign(task, process)) {
      continue;
    }
    std::ifstream status(task.path() / "status");
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with("CapPrm:") || line.starts_with("CapInh:")) {
        all |= std::stoull(line.substr(line.find('\t')), nullptr, 16);
      }
    }
  }
  return all;
}

TEST(StartUp, LeavesNoThreadWithPowersOverTheNetwork) {
  constexpr std::uint64_t kNetwork = 1U << CAP_NET_ADMIN | 1U << CAP_NET_RAW;
  ASSERT_EQ(CapabilitiesOf(getpid()) & kNetwork, kNetwork) << "the test itself has them";
  ChildProcess daemon(DaemonCommandFor(kOtherCameraPort));
  ASSERT_TRUE(WaitForBridge(daemon.pid())) << daemon.Error();
  EXPECT_TRUE(Eventually([&] { return (CapabilitiesOf(daemon.pid()) & kNetwork) == 0; }));
}

// True when the lines stand in the text in this order, whatever else stands between them.
testing::AssertionResult HasLinesInOrder(const std::string& text,
                                         const std::vector<std::string>& lines) {
  std::size_t position = 0;
  for (const std::string& line : lines) {
    position = text.find("\n" + line + "\n", position);
    if (position == std::string::npos) {
      return testing::AssertionFailure() << "no \"" << line << "\" in its place in:\n" << text;
    }
    ++position;
  }
  return testing::AssertionSuccess();
}

TEST(StartUp, SaysLittleWithoutOptions) {
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

TEST(StartUp, TellsItsStepsInOrderWhenVerboseAndSendsToTheLowBitsOfALargePort) {
  ScriptedCamera camera(kOtherCameraPort);  // 65536 less than asked for
  WriteTextFile(kAccessPointInterfacePath, "wlan1\r\n");
  // Numbers are decimal, also with a 0 before them; a negative port is none, but not refused.
  ChildProcess daemon(DaemonCommand({"-v", "--iface=ninechars", "-h", kCameraAddress, "--port",
                                     "074640", "-d", "127.0.0.2", "--dst-port=-60535 and more"}));
  ASSERT_TRUE(camera.Connect());
  ASSERT_TRUE(daemon.WaitForLine("Init data bridge server"));
  for (const char* said : {"--port=74640 is no UDP port, packets go to port 9104",
                           "--dst-port=-60535 is no UDP port, packets go to port 5001"}) {
    EXPECT_EQ(CountLines(daemon.Error(), said), 1) << said;
  }
  EXPECT_TRUE(HasLinesInOrder(
      daemon.Error(),
      {"Board supported", "Using interface ninechars",
       "Init connection to main application 127.0.0.2:-60535", "Done", "Init telemetry buffer",
       "Init frame buffer 60003624 bytes", "Init frame buffer for transcoding 13003624 bytes",
       "Init connection to camera 192.168.2.1:74640 via iface ninechars",
       "Init data bridge server for DJI MIMO via iface wlan1  "}));
}

TEST(StartUp, UnitWaitsForTheNextOneUnlessLatencyIsToBeLow) {
  for (const bool low : {false, true}) {
    ScriptedCamera camera;
    ChildProcess daemon(DaemonCommand(low ? std::vector<std::string>{"--low-latency"}
                                          : std::vector<std::string>{}));
    ASSERT_TRUE(camera.Connect());
    RingWatcher ring;
    const Bytes unit = MakeUnit(5'000, 1);
    camera.SendUnit(unit);
    ASSERT_TRUE(WaitUntilRead(daemon.pid()));
    EXPECT_EQ(ring.Next(low ? Patience() : std::chrono::milliseconds{200}), low ? unit : Bytes{});
  }
}

TEST(StartUp, EndsWithCodeOneWhenAnEndpointCannotBeOpened) {
  const struct {
    const char* open_files;  // beside the standard three: remote control, sockets, blocks
    const char* last_words;
  } rows[] = {{"5", ":5000\nCreating new shared raw RC\nFailed\n"},  // the main application's
              {"8", " via iface wifi0\n"}};                          // the camera's
  for (const auto& row : rows) {
    ForgetEarlierRuns();
    ChildProcess daemon({"sh", "-c", "ulimit -n \"$0\"; exec \"$1\" -v", row.open_files,
                         ProgramPath("kestrelbridge")});
    EXPECT_EQ(daemon.WaitForExit(), ExitedWith(1));
    EXPECT_TRUE(daemon.Error().ends_with(row.last_words)) << daemon.Error();
  }
}

TEST(StartUp, EndsWithCodeTwoWhenItMayNotWriteAFileOfTheRingsSize) {
  ForgetEarlierRuns();
  ChildProcess daemon({"sh", "-c", "ulimit -f 2000; exec \"$0\"", ProgramPath("kestrelbridge")});
  EXPECT_EQ(daemon.WaitForExit(), ExitedWith(2));
  EXPECT_EQ(CountLines(daemon.Error(), "File too large"), 1) << daemon.Error();
}

}  // namespace
}  // namespace kestrelbridge::test
