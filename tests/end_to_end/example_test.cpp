// The example of the documentation, as its reader would try it.

#include <gtest/gtest.h>

#include <string>

#include "end_to_end/daemon_stage.h"

namespace kestrelbridge::test {
namespace {

TEST(MainApplicationExample, ReadsVideoAndTelemetryAndCommandsTheCamera) {
  ChildProcess camera(
      CameraTool(kTestPattern, 30, {"--set", "model=DJI Pocket Osmo", "--loop"}, kCameraPort));
  ASSERT_TRUE(camera.WaitForLine("waiting for a connection request"));
  ChildProcess daemon(DaemonCommand());
  ASSERT_TRUE(daemon.WaitForLine("Camera connection found"));
  ChildProcess example({ProgramPath("main_application_example"), "5", "record"});
  EXPECT_TRUE(daemon.WaitForLine("Record start"));
  EXPECT_EQ(example.WaitForExit(), ExitedWith(0));
  EXPECT_NE(example.Output().find("camera: DJI Pocket Osmo, video mode"), std::string::npos)
      << example.Output();
  EXPECT_NE(example.Output().find("histogram: first bin"), std::string::npos);
  EXPECT_NE(example.Output().find(" 0 lost"), std::string::npos) << example.Output();
  EXPECT_EQ(example.Output().find("\n0 units"), std::string::npos) << example.Output();
}

}  // namespace
}  // namespace kestrelbridge::test
