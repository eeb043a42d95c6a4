// A command's whole way, with the simulated camera at its end: kestrelctl command, the daemon,
// kestrelctl camera, which obeys, and telemetry, which shows it.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "end_to_end/daemon_stage.h"

namespace kestrelbridge::test {
namespace {

using Options = std::vector<std::string>;

// Few: a command waits for two texts, which come once a second. Which code does what is tested with
// the camera's model, which word is which code with the commands.
TEST(ObeyedCommands, AreSeenToTakeEffect) {
  ChildProcess camera(CameraTool(kTestPattern, 30, {"--loop"}, kCameraPort));
  ASSERT_TRUE(camera.WaitForLine("waiting for a connection request"));
  ChildProcess daemon(DaemonCommand());
  ASSERT_TRUE(daemon.WaitForLine("Camera connection found"));
  for (const Options& words : {Options{"record", "start"},
                               {"histogram", "0"},
                               {"camera", "mode", "photo"},
                               {"shot"},
                               {"wb", "custom", "5650"}}) {
    Options command = Kestrelctl({"command", "--wait", "--timeout", "30"});
    command.insert(command.end(), words.begin(), words.end());
    ChildProcess tool(command);
    EXPECT_EQ(tool.WaitForExit(2 * Patience()), ExitedWith(0)) << words[0] << ": " << tool.Error();
  }
}

}  // namespace
}  // namespace kestrelbridge::test
