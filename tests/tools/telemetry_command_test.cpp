// kestrelctl telemetry, run for real; the test is the daemon, or worse.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "state/telemetry.h"
#include "support/child_process.h"
#include "support/udp_socket.h"

namespace kestrelbridge {
namespace {

using Options = std::vector<std::string>;

class TelemetryCommand : public testing::Test {
 protected:
  static Options Command(Options options) {
    options.insert(options.begin(), {ProgramPath("kestrelctl"), "telemetry"});
    return options;
  }

  void Send(std::span<const std::uint8_t> datagram) {
    ASSERT_TRUE(daemon_.Send(datagram, {.host = "127.0.0.1", .port = 5000}));
  }
  void SendText(const std::string& text) {
    Send(std::vector<std::uint8_t>(text.begin(), text.end()));
  }
  // One of each.
  void SendRecords() {
    CameraState state;
    state.iso = 800;
    const TextRecord text = BuildTextRecord(state);
    Send(std::span(text.buffer).first(text.length));
    Send(BuildStatusRecord(state));
    Send(BuildHistogramRecord(state));
  }

  UdpSocket daemon_;
};

TEST_F(TelemetryCommand, PrintsALinePerRecordIntoAPipeAndEndsAfterItsCount) {
  ChildProcess telemetry(Command({"--count", "4"}));
  ASSERT_TRUE(telemetry.WaitForLine("listening on 127.0.0.1:5000"));
  SendRecords();
  Send(std::vector<std::uint8_t>{1, 2, 3});
  Send(BuildStatusRecord({}));
  EXPECT_EQ(telemetry.WaitForExit(), ExitedWith(0));
  const std::string sender = " 127.0.0.1:" + std::to_string(daemon_.port()) + " ";
  EXPECT_EQ(CountLines(telemetry.Output(), sender), 4) << telemetry.Output();
  EXPECT_EQ(CountLines(telemetry.Output(), "text" + sender + "camera_detected=0,"), 1);
  EXPECT_EQ(CountLines(telemetry.Output(), "status" + sender), 1);
  EXPECT_EQ(CountLines(telemetry.Output(), "histogram" + sender + "0 0 0"), 1);
  EXPECT_EQ(CountLines(telemetry.Output(), "unknown" + sender + "3 bytes: 01 02 03"), 1);
}

TEST_F(TelemetryCommand, PrintsJsonForScripts) {
  ChildProcess telemetry(Command({"--json", "--count", "3"}));
  ASSERT_TRUE(telemetry.WaitForLine("listening"));
  SendRecords();
  EXPECT_EQ(telemetry.WaitForExit(), ExitedWith(0));
  EXPECT_EQ(CountLines(telemetry.Output(), "\"iso\":\"800\""), 1) << telemetry.Output();
  EXPECT_EQ(CountLines(telemetry.Output(), "{\"type\":"), 3);
}

TEST_F(TelemetryCommand, SurvivesAnyDatagram) {
  ChildProcess telemetry(Command({}));
  ASSERT_TRUE(telemetry.WaitForLine("listening"));
  Send({});
  Send(std::vector<std::uint8_t>(65'507, 7));
  std::mt19937 random(7);
  int sent = 2;
  for (; sent < 302; ++sent) {
    // No more at once than fit into its receive buffer.
    ASSERT_TRUE(sent % 20 != 0 || telemetry.WaitForLine(" 127.0.0.1:", Patience(), sent));
    std::vector<std::uint8_t> datagram(random() % 1400);
    std::ranges::generate(datagram, [&] { return static_cast<std::uint8_t>(random()); });
    if (!datagram.empty()) {
      datagram[0] = static_cast<std::uint8_t>(6 + random() % 2);
    }
    Send(datagram);
  }
  SendText("\x07last=\x1b[2J,");
  EXPECT_TRUE(telemetry.WaitForLine("last=?[2J,"));
  EXPECT_EQ(CountLines(telemetry.Output(), " 127.0.0.1:"), sent + 1);
  telemetry.Kill(SIGTERM);
  EXPECT_EQ(telemetry.WaitForExit(), ExitedWith(0));
}

TEST_F(TelemetryCommand, SaysOnceForEachSilenceThatNothingComes) {
  ChildProcess telemetry(Command({}));
  ASSERT_TRUE(telemetry.WaitForLine("nothing has arrived on 127.0.0.1:5000 for 3 s"));
  SendRecords();
  ASSERT_TRUE(telemetry.WaitForLine("nothing has arrived", Patience(), 2));
  telemetry.Kill(SIGINT);
  EXPECT_EQ(telemetry.WaitForExit(), ExitedWith(0));
  EXPECT_EQ(CountLines(telemetry.Error(), "nothing has arrived"), 2);
}

TEST_F(TelemetryCommand, SaysThatTheMainApplicationProbablyHoldsThePort) {
  const UdpSocket main_application({.host = "127.0.0.1", .port = 5000});
  ChildProcess telemetry(Command({}));
  EXPECT_EQ(telemetry.WaitForExit(), ExitedWith(1));
  EXPECT_EQ(CountLines(telemetry.Error(), "5000: address in use, probably by the main application"),
            1)
      << telemetry.Error();
}

TEST_F(TelemetryCommand, EndsByItselfAndWithItsReader) {
  ChildProcess limited(Command({"--duration", "0.1"}));
  EXPECT_EQ(limited.WaitForExit(), ExitedWith(0));
  ChildProcess shell(
      {"bash", "-c", "set -o pipefail; " + ProgramPath("kestrelctl") + " telemetry | head -n 1"});
  ASSERT_TRUE(shell.WaitForLine("listening"));
  SendRecords();
  EXPECT_EQ(shell.WaitForExit(), ExitedWith(0)) << shell.Error();
  ChildProcess full({"bash", "-c", ProgramPath("kestrelctl") + " telemetry > /dev/full"});
  ASSERT_TRUE(full.WaitForLine("listening"));
  SendRecords();
  EXPECT_EQ(full.WaitForExit(), ExitedWith(1));
  EXPECT_EQ(CountLines(full.Error(), "cannot write to standard output: No space left"), 1);
}

// What a program draws on it.
class Terminal {
 public:
  Terminal() : master_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK)) {
    EXPECT_EQ(grantpt(master_), 0);
    EXPECT_EQ(unlockpt(master_), 0);
    name_ = ptsname(master_);
    // Kept open: without anybody on the other side, reading fails.
    slave_ = open(name_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;
  ~Terminal() {
    close(slave_);
    close(master_);
  }

  const std::string& name() const { return name_; }
  bool WaitFor(std::string_view text) {
    return Eventually([&] {
      char buffer[4096];
      for (ssize_t length = 0; (length = read(master_, buffer, sizeof buffer)) > 0;) {
        drawn_.append(buffer, static_cast<std::size_t>(length));
      }
      return drawn_.find(text) != std::string::npos;
    });
  }
  const std::string& drawn() const { return drawn_; }

 private:
  int master_;
  int slave_ = -1;
  std::string name_;
  std::string drawn_;
};

TEST_F(TelemetryCommand, DrawsAViewOverItselfOnATerminal) {
  Terminal terminal;
  ChildProcess telemetry(
      {"bash", "-c", "exec " + ProgramPath("kestrelctl") + " telemetry > " + terminal.name()});
  ASSERT_TRUE(telemetry.WaitForLine("listening"));
  CameraState state;
  std::snprintf(state.camera_model, sizeof state.camera_model, "DJI Osmo Action");
  std::snprintf(state.wb, sizeof state.wb, "\x1b[31mneon");
  state.histogram[10] = 200;
  const TextRecord text = BuildTextRecord(state);
  Send(std::span(text.buffer).first(text.length));
  Send(BuildHistogramRecord(state));
  EXPECT_TRUE(terminal.WaitFor("█"));
  EXPECT_TRUE(terminal.WaitFor("\x1b[H"));
  EXPECT_TRUE(terminal.WaitFor("camera_model     DJI Osmo Action"));
  EXPECT_TRUE(terminal.WaitFor("?[31mneon"));
  EXPECT_TRUE(terminal.WaitFor("from 127.0.0.1:" + std::to_string(daemon_.port())));
  EXPECT_TRUE(terminal.WaitFor("silent for "));
  telemetry.Kill(SIGINT);
  EXPECT_EQ(telemetry.WaitForExit(), ExitedWith(0));
  EXPECT_TRUE(terminal.WaitFor("\x1b[?25h")) << "the cursor is back";
  EXPECT_EQ(terminal.drawn().find("\x1b[31m"), std::string::npos);
  EXPECT_EQ(CountLines(telemetry.Error(), "nothing has arrived"), 0) << "the view tells it";
}

}  // namespace
}  // namespace kestrelbridge
