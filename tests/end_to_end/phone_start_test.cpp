// The phone's side of the daemon's start, as its user sees it: the rule that is asked for, and that
// all else works without it.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

#include "base/run_paths.h"
#include "end_to_end/daemon_bench.h"
#include "support/fake_iptables.h"

namespace kestrelbridge {
namespace {

struct Start {
  const char* name;
  std::string interface_file;
  std::string interface_arguments;  // what iptables gets between -i and --src
  std::vector<std::string> options = {};
  const char* host = "[192.168.2.1]";
  const char* port = "[9104]";
};
std::ostream& operator<<(std::ostream& out, const Start& row) { return out << row.name; }

void WriteInterfaceFile(const std::string& text) {
  std::ofstream(kAccessPointInterfacePath, std::ios::binary) << text;
}

class PhoneStart : public testing::Test {
 protected:
  void TearDown() override { std::filesystem::remove(kAccessPointInterfacePath); }

  // The daemon, with this folder first in PATH and the camera elsewhere than on port 9004.
  static std::vector<std::string> Command(const std::string& path, const std::string& work_folder,
                                          const std::vector<std::string>& options = {}) {
    std::vector<std::string> command = {"env", "-C", work_folder, "PATH=" + path};
    const auto daemon = DaemonCommandFor(kOtherCameraPort);
    command.insert(command.end(), daemon.begin(), daemon.end());
    command.insert(command.end(), options.begin(), options.end());
    return command;
  }
  std::vector<std::string> Command(const std::vector<std::string>& options = {}) const {
    return Command(iptables_.Folder() + ":/usr/bin:/bin", iptables_.WorkFolder(), options);
  }

  FakeIptables iptables_;
};

class AskedForRule : public PhoneStart, public testing::WithParamInterface<Start> {};

TEST_P(AskedForRule, HasTheNameOfTheFile) {
  const Start& row = GetParam();
  WriteInterfaceFile(row.interface_file);
  ChildProcess daemon(Command(row.options));
  ASSERT_TRUE(Eventually([&] { return !iptables_.Calls().empty(); })) << daemon.Error();
  ASSERT_TRUE(WaitForBridge(daemon.pid()));
  EXPECT_EQ(iptables_.Calls(),
            std::vector<std::string>{"[-t][nat][-I][PREROUTING][-i]" + row.interface_arguments +
                                     "[--src][0/0][--dst]" + row.host + "[-p][udp][--dport]" +
                                     row.port + "[-j][REDIRECT][--to-ports][9004]"});
  EXPECT_EQ(iptables_.Strays(), std::vector<std::string>{});
  EXPECT_EQ(CountLines(daemon.Error(), "No redirect rule"), 0);
}

INSTANTIATE_TEST_SUITE_P(
    PhoneStart, AskedForRule,
    testing::Values(Start{"LineFeedIsABlank", "wlan1\n", "[wlan1]"},
                    Start{"LineFeedInTheMiddle", "a\nb\r\n", "[a][b]"},
                    Start{"NineCharacters", "ninechars\n", "[ninechars]"},
                    Start{"CutToNineCharacters", "0123456789abcdef;>own", "[012345678]"},
                    Start{"EndsAtNul", std::string("wl\0;>own", 8), "[wl]"}, Start{"Empty", "", ""},
                    Start{"OtherCamera",
                          "wlan1\n",
                          "[wlan1]",
                          {"--host", "10.0.0.200", "--port", "74540"},
                          "[10.0.0.200]",
                          "[74540]"}),
    [](const auto& row) { return row.param.name; });

// A name that the shell must not see, from either of its two sources.
struct Refusal {
  const char* name;
  std::string interface_file;
  std::vector<std::string> options;
  const char* complaint;
};
std::ostream& operator<<(std::ostream& out, const Refusal& row) { return out << row.name; }

class RefusedRule : public PhoneStart, public testing::WithParamInterface<Refusal> {};

TEST_P(RefusedRule, IsNotRunAndOneLineSaysWhy) {
  WriteInterfaceFile(GetParam().interface_file);
  ChildProcess daemon(Command(GetParam().options));
  ASSERT_TRUE(WaitForBridge(daemon.pid())) << daemon.Error();
  EXPECT_EQ(iptables_.Calls(), std::vector<std::string>{});
  EXPECT_EQ(iptables_.Strays(), std::vector<std::string>{});
  EXPECT_TRUE(daemon.WaitForLine(GetParam().complaint)) << daemon.Error();
  EXPECT_EQ(CountLines(daemon.Error(), "No redirect rule for the phone app: "), 1);
}

INSTANTIATE_TEST_SUITE_P(
    PhoneStart, RefusedRule,
    testing::Values(
        Refusal{"CommandInTheFile", ";>own;\n", {}, "access-point interface \";>own; \""},
        Refusal{"BackQuotesInTheFile", "`>own`", {}, "access-point interface \"`>own`\""},
        Refusal{"BinaryFile", "\x7F\xE2\x82\xAC\x1B[0m", {}, "access-point interface \"?????[0m\""},
        Refusal{"CommandInTheHost",
                "wlan1",
                {"--host", "192.168.2.1;>own"},
                "camera host \"192.168.2.1;>own\""}),
    [](const auto& row) { return row.param.name; });

// What may go wrong with the bridge; none of it may cost the picture.
struct Mishap {
  const char* name;
  const char* path;  // nothing: that of the false iptables
  const char* complaint;
};
std::ostream& operator<<(std::ostream& out, const Mishap& row) { return out << row.name; }

class Mishaps : public PhoneStart, public testing::WithParamInterface<Mishap> {};

TEST_P(Mishaps, LeaveTheVideoAlone) {
  const Mishap& row = GetParam();
  WriteInterfaceFile("wlan1\n");
  const FakeIptables failing(3);
  ScriptedCamera camera(kOtherCameraPort);
  ChildProcess daemon(
      Command(row.path != nullptr ? row.path : failing.Folder() + ":/usr/bin:/bin", "/"));
  ASSERT_TRUE(camera.Connect()) << daemon.Error();
  if (row.complaint != nullptr) {
    EXPECT_TRUE(daemon.WaitForLine(row.complaint)) << daemon.Error();
  } else {
    EXPECT_TRUE(Eventually([&] { return failing.Calls().size() == 1; }));
  }
  EXPECT_TRUE(WaitForBridge(daemon.pid()));
  RingWatcher ring;
  for (std::uint32_t seed = 0; seed < 3; ++seed) {
    const Bytes unit = MakeUnit(3000, seed);
    camera.SendUnit(unit);
    camera.SendNextHeader();
    EXPECT_EQ(ring.Next(), unit);
  }
  EXPECT_TRUE(daemon.IsRunning());
}

INSTANTIATE_TEST_SUITE_P(PhoneStart, Mishaps,
                         testing::Values(Mishap{"NoIptables", "/nowhere", "iptables"},
                                         Mishap{"FailingIptables", nullptr, nullptr}),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace kestrelbridge
