// The whole box: simulated camera, daemon, share and console.

#include "base/run_paths.h"
#include "console/console_stage.h"
#include "end_to_end/daemon_stage.h"

namespace kestrelbridge::test {
namespace {

std::vector<std::string> SharedDaemon() {
  return DaemonCommand({"--port", std::to_string(kCameraPort), "--dst-port=5001"});
}

std::string Command(int id, const std::string& words) {
  return R"({"type":"command","id":)" + std::to_string(id) + "," + words + "}";
}

// Whether the next units are pictures, the first of them a keyframe.
bool Streams(WebSocketClient& viewer, int count) {
  for (int i = 0; i < count;) {
    const Frame frame = viewer.Receive();
    if (frame.opcode == 0 || frame.opcode == kCloseFrame) {
      return false;
    }
    i += frame.opcode == kBinaryFrame ? 1 : 0;
  }
  return true;
}

TEST(ConsoleOfARealBox, ShowsThePictureObeysAndOutlivesTheDaemon) {
  ForgetEarlierRuns();
  ChildProcess share({ProgramPath("kestrelshare"), "--group", ""});
  ASSERT_TRUE(Eventually([] { return access(kShareControlPath, F_OK) == 0; })) << share.Error();
  const ConsoleStage stage;
  WebSocketClient state(stage.port, "/state");
  EXPECT_NE(state.ReceiveText(R"("id":"no_ring")"), "");
  ChildProcess camera(CameraTool(kTestPattern, 30, {"--loop"}, kCameraPort));
  ASSERT_TRUE(camera.WaitForLine("waiting for a connection request"));
  auto daemon = std::make_unique<ChildProcess>(SharedDaemon());
  EXPECT_NE(state.ReceiveText(R"("text":"daemon runs")"), "");
  EXPECT_NE(state.ReceiveText(R"("camera_mode":"video")"), "");
  WebSocketClient viewer(stage.port, "/video");
  EXPECT_TRUE(Streams(viewer, 30));
  int id = 0;
  for (const char* const words :
       {R"("cmd":"camera","param":"photo")", R"("cmd":"shot")",
        R"("cmd":"wb","param":"custom","value":"5600")", R"("cmd":"camera","param":"video")",
        R"("cmd":"record","param":"start")", R"("cmd":"record","param":"stop")"}) {
    ASSERT_TRUE(state.Send(Command(++id, words)));
    const std::string start = R"("id":)" + std::to_string(id) + R"(,"state":")";
    EXPECT_NE(state.ReceiveText(start + "pending"), "") << words;
    EXPECT_NE(state.ReceiveText(start).find("done"), std::string::npos) << words;
  }
  daemon->Kill(SIGKILL);
  ASSERT_TRUE(daemon->WaitForExit());
  EXPECT_NE(viewer.ReceiveText(R"("reason":"no_)"), "");
  daemon = std::make_unique<ChildProcess>(SharedDaemon());
  EXPECT_TRUE(Streams(viewer, 30)) << "the same viewer, without having come again";
  EXPECT_NE(state.ReceiveText(R"("text":"daemon started again")"), "");
}

}  // namespace
}  // namespace kestrelbridge::test
