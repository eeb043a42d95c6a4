// A command's whole way, with the simulated camera at its end: kestrelctl command, the daemon,
// kestrelctl camera, which obeys, and telemetry, which shows it.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "end_to_end/daemon_stage.h"

namespace kestrelbridge::test {
namespace {

using Options = std::vector<std::string>;

// Each group is a test of its own: a command waits for two texts, which come once a second.
const std::vector<Options> kGroups[] = {
    {{"record", "start"},
     {"record", "stop"},
     {"histogram", "0"},
     {"shutter", "1/240"},
     {"iso", "400"}},
    {{"camera", "mode", "photo"},
     {"shot"},
     {"shotmode", "jpg+raw"},
     {"wb", "custom", "5650"},
     {"ev", "+0.7"}},
    {{"video_mode", "manual"},
     {"video_resolution", "1920x1080@60"},
     {"video_aspect", "4:3"},
     {"antiflicker", "60"},
     {"video_std", "PAL"},
     {"color", "black white"}},
};

class ObeyedCommands : public testing::TestWithParam<std::vector<Options>> {};

TEST_P(ObeyedCommands, AreSeenToTakeEffect) {
  ChildProcess camera(CameraTool(kTestPattern, 30, {"--loop"}, kCameraPort));
  ASSERT_TRUE(camera.WaitForLine("waiting for a connection request"));
  ChildProcess daemon(DaemonCommand());
  ASSERT_TRUE(daemon.WaitForLine("Camera connection found"));
  for (const Options& words : GetParam()) {
    Options command = Kestrelctl({"command", "--wait", "--timeout", "30"});
    command.insert(command.end(), words.begin(), words.end());
    ChildProcess tool(command);
    EXPECT_EQ(tool.WaitForExit(2 * Patience()), ExitedWith(0)) << words[0] << ": " << tool.Error();
  }
}

INSTANTIATE_TEST_SUITE_P(Group, ObeyedCommands, testing::ValuesIn(kGroups));

}  // namespace
}  // namespace kestrelbridge::test
