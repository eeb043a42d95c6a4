// The phone's side of the daemon's start, as its user sees it: the rule that is asked for, and that
// all else works without it. (Which names are refused is tested with the rule itself.)

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "base/run_paths.h"
#include "end_to_end/daemon_stage.h"

namespace kestrelbridge::test {
namespace {

// A program "iptables" that does nothing but write down how it was called: a line a call, the
// arguments in brackets.
void MakeFakeIptables(const TemporaryFolder& folder) {
  const std::string program = folder.File("iptables");
  std::ofstream(program) << "#!/bin/sh\n"
                         << "{ printf '[%s]' \"$@\"; echo; } >>'" << folder.File("calls") << "'";
  std::filesystem::permissions(program, std::filesystem::perms::owner_all);
}

// The daemon, with the camera elsewhere than on port 9004.
std::vector<std::string> Command(const std::string& path,
                                 const std::vector<std::string>& options = {}) {
  std::vector<std::string> command = {"env", "PATH=" + path};
  for (const auto& part : {DaemonCommandFor(kOtherCameraPort), options}) {
    command.insert(command.end(), part.begin(), part.end());
  }
  return command;
}

TEST(PhoneStart, AsksForTheRuleThatTheFileAndTheOptionsName) {
  const struct {
    std::string interface_file;
    std::string interface_arguments;  // what iptables gets between -i and --src
    std::string complaint = {};       // then it is not run
    std::vector<std::string> options = {};
    std::string host = "[192.168.2.1]";
    std::string port = "[9104]";
  } rows[] = {
      {"a\nb\r\n", "[a][b]"},  // a line feed is a blank
      {"0123456789abcdef;>own", "[012345678]"},
      {std::string("wl\0;>own", 8), "[wl]"},
      {"", ""},
      {"wlan1\n",
       "[wlan1]",
       "",
       {"--host", "10.0.0.9", "--port", "74540"},
       "[10.0.0.9]",
       "[74540]"},
      {";>own;\n", "", "access-point interface \";>own; \""},
      {"w\x1B[2J\xFF", "", "access-point interface \"w?[2J?\""},  // nothing for the terminal
      {"wlan1", "", "camera host \"192.168.2.1;>own\"", {"--host", "192.168.2.1;>own"}},
  };
  for (const auto& row : rows) {
    const TemporaryFolder iptables;
    MakeFakeIptables(iptables);
    std::ofstream(kAccessPointInterfacePath, std::ios::binary) << row.interface_file;
    ChildProcess daemon(Command(iptables.Path() + ":/usr/bin:/bin", row.options));
    ASSERT_TRUE(WaitForBridge(daemon.pid())) << daemon.Error();
    const bool is_run = row.complaint.empty();
    EXPECT_EQ(ReadFile(iptables.File("calls")),
              is_run ? "[-t][nat][-I][PREROUTING][-i]" + row.interface_arguments +
                           "[--src][0/0][--dst]" + row.host + "[-p][udp][--dport]" + row.port +
                           "[-j][REDIRECT][--to-ports][9004]\n"
                     : "");
    EXPECT_TRUE(is_run || daemon.WaitForLine(row.complaint)) << daemon.Error();
    EXPECT_EQ(CountLines(daemon.Error(), "Interface name \"0123456789abcdef;>own\" of "),
              CountLines(daemon.Error(), "is cut to \"012345678\""));
    EXPECT_EQ(CountLines(daemon.Error(), "is cut to"),
              row.interface_arguments == "[012345678]" ? 1 : 0)
        << daemon.Error();
    EXPECT_EQ(CountLines(daemon.Error(), "No redirect rule for the phone app: "), is_run ? 0 : 1);
  }
}

TEST(PhoneStart, WithoutIptablesTheVideoFlows) {
  DaemonRun run(Command("/nowhere"));
  ASSERT_TRUE(run.camera.Connect()) << run.daemon.Error();
  EXPECT_TRUE(run.daemon.WaitForLine("iptables")) << run.daemon.Error();
  EXPECT_TRUE(WaitForBridge(run.daemon.pid()));
  RingWatcher ring;
  EXPECT_TRUE(Serves(run, ring));
}

}  // namespace
}  // namespace kestrelbridge::test
