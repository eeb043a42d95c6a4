// kestrelctl rc, run for real; the test looks into the block as the daemon does.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cmath>
#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "control/rc_block.h"
#include "support/child_process.h"

namespace kestrelbridge {
namespace {

using Options = std::vector<std::string>;

class RcCommand : public testing::Test {
 protected:
  void SetUp() override { shm_unlink(kRcBlockName); }

  static Options Command(Options options) {
    options.insert(options.begin(), {ProgramPath("kestrelctl"), "rc"});
    return options;
  }
  static std::string Run(const Options& options) {
    ChildProcess rc(Command(options));
    EXPECT_EQ(rc.WaitForExit(), ExitedWith(0)) << rc.Error();
    return rc.Output();
  }
  RcValues Values() {
    RcValues values;
    EXPECT_TRUE(block_.bytes != nullptr || OpenRcBlock(block_));
    EXPECT_TRUE(ReadRcBlock(block_, values));
    return values;
  }

  RcBlock block_;
};

TEST_F(RcCommand, SetsChannelsByNumberAndByName) {
  Run({"139=1", "iso=-1", "ev_slider=0.5", "0=nan", "185=1e300"});
  const RcValues values = Values();
  EXPECT_EQ(values.channels[kRcRecordSwitch], 1);
  EXPECT_EQ(values.channels[kRcIsoSwitch], -1);
  EXPECT_EQ(values.channels[kRcEvSlider], 0.5);
  EXPECT_TRUE(std::isnan(values.channels[0]));
  EXPECT_EQ(values.channels[185], 1e300);
  EXPECT_FALSE(values.slider_enabled);
  const auto status = std::filesystem::status("/dev/shm/shared_rc_raw");
  EXPECT_EQ(status.permissions(), std::filesystem::perms(0600));
}

TEST_F(RcCommand, PutsTheSliderInForceAndOutOfIt) {
  Run({"--slider", "-0.5"});
  EXPECT_EQ(Values().channels[kRcEvSlider], -0.5);
  EXPECT_TRUE(Values().slider_enabled);
  Run({"--no-slider"});
  EXPECT_EQ(Values().channels[kRcEvSlider], -0.5);
  EXPECT_FALSE(Values().slider_enabled);
}

TEST_F(RcCommand, ListsEveryWatchedChannelWithItsValue) {
  Run({"139=-1", "--slider", "0.25"});
  const std::string list = Run({});
  EXPECT_EQ(CountLines(list, " "), 23) << list;  // a title, 21 channels, the slider
  EXPECT_EQ(CountLines(list, "139      record           -1 "), 1) << list;
  EXPECT_EQ(CountLines(list, "slider in force: yes"), 1);
  EXPECT_EQ(Values().channels[kRcRecordSwitch], -1) << "a list changes nothing";
}

TEST_F(RcCommand, HoldsAChannelAndLetsGoAlsoWhenItIsInterrupted) {
  for (const bool is_interrupted : {false, true}) {
    ChildProcess rc(Command({"157=1", "--hold", is_interrupted ? "600000" : "300"}));
    ASSERT_TRUE(rc.WaitForLine("157 iso_next = 1"));
    if (is_interrupted) {
      EXPECT_EQ(Values().channels[kRcIsoNext], 1);
      rc.Kill(SIGINT);
    }
    EXPECT_EQ(rc.WaitForExit(), ExitedWith(0));
    EXPECT_EQ(Values().channels[kRcIsoNext], 0);
  }
}

TEST_F(RcCommand, WatchesEveryChange) {
  ChildProcess watch(Command({"--watch"}));
  ASSERT_TRUE(watch.WaitForLine("watching /dev/shm/shared_rc_raw"));
  Values();
  // A change that comes before the first look is no change: repeated until one is seen.
  ASSERT_TRUE(Eventually([&, value = 0.0]() mutable {
    StoreRcChannel(block_.bytes, 7, value += 1);
    return watch.WaitForLine("7 7: ", std::chrono::milliseconds{50});
  }));
  StoreRcChannel(block_.bytes, kRcModeSwitch, -1);
  EXPECT_TRUE(watch.WaitForLine("140 mode: 0 -> -1"));
  StoreRcSliderEnabled(block_.bytes, 256);
  EXPECT_TRUE(watch.WaitForLine("slider in force: yes"));
  shm_unlink(kRcBlockName);
  EXPECT_TRUE(watch.WaitForLine("140 mode: -1 -> 0")) << "a new block is empty";
  watch.Kill(SIGINT);
  EXPECT_EQ(watch.WaitForExit(), ExitedWith(0));
}

TEST_F(RcCommand, SaysWhatItDoesNotTake) {
  const struct {
    Options options;
    const char* message;
  } rows[] = {
      {{"186=1"}, "\"186=1\" is no CHANNEL=VALUE"},
      {{"-1=1"}, "-1=1"},
      {{"zoom=1"}, "is no CHANNEL=VALUE"},
      {{"139"}, "is no CHANNEL=VALUE"},
      {{"139="}, "is no CHANNEL=VALUE"},
      {{"139=1x"}, "is no CHANNEL=VALUE"},
      {{"--hold", "10"}, "--hold needs a channel"},
      {{"--slider", "1.5"}, "--slider"},
      {{"--slider", "0", "--no-slider"}, "excludes"},
  };
  for (const auto& row : rows) {
    ChildProcess rc(Command(row.options));
    EXPECT_EQ(rc.WaitForExit(), ExitedWith(1)) << row.message;
    EXPECT_GE(CountLines(rc.Error(), row.message), 1) << rc.Error();
  }
  EXPECT_FALSE(std::filesystem::exists("/dev/shm/shared_rc_raw")) << "nothing was touched";
}

}  // namespace
}  // namespace kestrelbridge
