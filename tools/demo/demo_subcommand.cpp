#include "tools/demo/demo_subcommand.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "tools/common/default_clip.h"
#include "tools/common/number_option.h"
#include "tools/common/run_end.h"
#include "tools/common/run_program.h"
#include "tools/common/start_program.h"
#include "tools/common/tool_error.h"
#include "tools/demo/stage.h"

namespace kestrelbridge::tools {
namespace {

namespace fs = std::filesystem;

constexpr char kCameraPlace[] = "127.0.0.1:9010";
constexpr char kVideo[] = "/run/received.h264";
constexpr char kCameraLog[] = "/run/camera.log";
constexpr char kDaemonLog[] = "/run/daemon.log";
constexpr std::chrono::milliseconds kPause{50};
constexpr double kMostSeconds = 600;

std::string ReadWhole(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

int OpenLogFile(const char* path) {
  return open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

// Beside kestrelctl in a build, in the next folder once installed, or wherever.
std::string DaemonPath() {
  const fs::path here = fs::read_symlink("/proc/self/exe").parent_path();
  for (const fs::path& path : {here / "kestrelbridge", here / "../sbin/kestrelbridge"}) {
    if (fs::exists(path)) {
      return path.lexically_normal();
    }
  }
  if (std::string found = FindProgram("kestrelbridge"); !found.empty()) {
    return found;
  }
  throw ToolError("kestrelbridge is not installed beside kestrelctl");
}

bool HasEnded(pid_t process) { return waitpid(process, nullptr, WNOHANG) == process; }

// False when it is time to end first.
bool WaitForText(const char* path, const char* text, RunEnd& end) {
  while (ReadWhole(path).find(text) == std::string::npos) {
    if (end.Wait(kPause, -1)) {
      return false;
    }
  }
  return true;
}

// What the camera sends is the clip, again and again; the last unit stays in the daemon, since only
// the next one's header would show that it is whole.
bool IsWholeVideo(const std::string& received, const std::string& clip) {
  for (std::size_t at = 0; at < received.size(); at += clip.size()) {
    const std::string_view part = std::string_view(received).substr(at, clip.size());
    if (!std::string_view(clip).starts_with(part)) {
      return false;
    }
  }
  return !received.empty();
}

void Show(const std::vector<std::string>& command) {
  const auto answer = RunProgram(command, std::chrono::seconds{20});
  std::string line = "kestrelctl";
  for (std::size_t i = 1; i < command.size(); ++i) {
    line += " " + command[i];
  }
  std::printf("%s\n%s", line.c_str(), answer ? answer->output.c_str() : "no answer\n");
  std::fflush(stdout);
}

void Judge(const std::string& clip_path) {
  const std::string received = ReadWhole(kVideo);
  if (!IsWholeVideo(received, ReadWhole(clip_path))) {
    std::fputs(ReadWhole(kDaemonLog).c_str(), stderr);
    throw ToolError("the video did not come through whole: " + std::to_string(received.size()) +
                    " bytes arrived");
  }
  std::printf("%zu bytes of video came through, each as the camera sent it\n", received.size());
}

void RunDemo(double seconds) {
  const std::string clip = DefaultClip();
  const std::string daemon_path = DaemonPath();
  const std::string self = fs::read_symlink("/proc/self/exe");
  EnterStage();
  RunEnd end(seconds + 60);
  std::printf("camera   simulated, plays %s\n", clip.c_str());
  const int camera_log = OpenLogFile(kCameraLog);
  StartProgram({.command = {self, "camera", "--listen", kCameraPlace, "--clip", clip, "--loop",
                            "--silence-after", std::to_string(seconds), "--duration",
                            std::to_string(seconds + 60)},
                .output = camera_log,
                .error = camera_log});
  if (!WaitForText(kCameraLog, "waiting for a connection request", end)) {
    return;
  }
  std::printf("daemon   %s --host=127.0.0.1 --port=9010\n", daemon_path.c_str());
  const int daemon_log = OpenLogFile(kDaemonLog);
  const pid_t daemon = StartProgram({.command = {daemon_path, "--host=127.0.0.1", "--port=9010"},
                                     .output = daemon_log,
                                     .error = daemon_log});
  std::printf("reader   kestrelctl video --stats --output %s\n\n", kVideo);
  std::fflush(stdout);
  const pid_t reader = StartProgram({.command = {self, "video", "--stats", "--output", kVideo},
                                     .output = STDOUT_FILENO,
                                     .error = STDERR_FILENO});
  if (WaitForText(kDaemonLog, "Camera connection found", end)) {
    Show({self, "command", "iso", "400", "--wait"});
    Show({self, "command", "record", "start", "--wait"});
  }
  bool stopped = false;
  while (!HasEnded(daemon) && !stopped) {
    stopped = end.Wait(kPause, -1);
  }
  kill(reader, SIGINT);
  waitpid(reader, nullptr, 0);
  if (stopped) {
    throw ToolError("stopped");
  }
  std::printf(
      "\nThe camera fell silent, and the daemon ended; the service would start it again.\n");
  Judge(clip);
}

}  // namespace

void AddDemoSubcommand(CLI::App& app) {
  CLI::App* const command =
      app.add_subcommand("demo",
                         "Plays simulated camera, daemon and reader together, and checks "
                         "that every byte of the video comes through");
  const auto seconds = std::make_shared<double>(10);
  command->add_option("--seconds", *seconds, "How long the camera streams")
      ->check(NumberBetween(1, kMostSeconds))
      ->capture_default_str();
  command->footer(
      "Needs no camera and no root: all of it runs in namespaces of its own, beside a daemon that "
      "runs on this box, and nothing is left behind.\n"
      "Exit code: 0 when the video came through whole, else 1.");
  command->callback([seconds] { RunDemo(*seconds); });
}

}  // namespace kestrelbridge::tools
