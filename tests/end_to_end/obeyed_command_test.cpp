// A command's whole way, with the simulated camera at its end: kestrelctl command, the daemon,
// kestrelctl camera, which obeys, and telemetry, which shows it.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "end_to_end/daemon_bench.h"

namespace kestrelbridge {
namespace {

using Options = std::vector<std::string>;

TEST(ObeyedCommand, EveryCommandWithAVisibleEffectIsSeenToTakeEffect) {
  const std::string kestrelctl = ProgramPath("kestrelctl");
  ChildProcess camera(
      {kestrelctl, "camera", "--listen", std::string(kCameraAddress) + ":9004", "--clip",
       std::string(KESTRELBRIDGE_SOURCE_DIR) + "/tools/clips/test-pattern-720p30.h264", "--loop"});
  ASSERT_TRUE(camera.WaitForLine("waiting for a connection request"));
  ChildProcess daemon(DaemonCommand());
  ASSERT_TRUE(daemon.WaitForLine("Camera connection found"));
  const Options commands[] = {
      {"record", "start"},
      {"record", "stop"},
      {"camera", "mode", "photo"},
      {"shot"},
      {"camera", "mode", "video"},
      {"video_mode", "manual"},
      {"shutter", "1/240"},
      {"iso", "400"},
      {"iso", "auto"},
      {"ev", "+0.7"},
      {"wb", "custom", "5650"},
      {"wb", "sunny"},
      {"color", "black white"},
      {"video_resolution", "1920x1080@60"},
      {"video_aspect", "4:3"},
      {"shotmode", "jpg+raw"},
      {"antiflicker", "60"},
      {"video_std", "PAL"},
      {"histogram", "0"},
      {"histogram", "1"},
  };
  for (const Options& words : commands) {
    Options command = {kestrelctl, "command", "--wait", "--timeout", "30"};
    command.insert(command.end(), words.begin(), words.end());
    ChildProcess tool(command);
    EXPECT_EQ(tool.WaitForExit(2 * Patience()), ExitedWith(0)) << words[0] << ": " << tool.Error();
  }
}

}  // namespace
}  // namespace kestrelbridge
