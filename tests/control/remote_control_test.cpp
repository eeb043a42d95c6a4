// Switches and slider, look by look: no thread, no waiting.

#include "control/remote_control.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include "state/camera_state.h"
#include "support/camera_end.h"

namespace kestrelbridge::test {
namespace {

void SetModeCode(std::uint8_t code) {
  UpdateCameraState([code](CameraState& state) { state.camera_mode_code = code; });
}

class RemoteControl : public CameraEnd {
 protected:
  // Takes one look and returns what it logged.
  std::string Look() {
    HandleRcValues(values_, memory_);
    SentFrames();
    return Log();
  }
  std::string Move(std::size_t channel, double value) {
    values_.channels[channel] = value;
    return Look();
  }
  // The first line of what a move logs.
  std::string FirstLine(std::size_t channel, double value) {
    const std::string log = Move(channel, value);
    return log.substr(0, log.find('\n'));
  }

  RcValues values_;
  RcMemory memory_;
};

TEST_F(RemoteControl, EverySwitchActsOnAChangeOfPosition) {
  struct Row {
    std::size_t channel;
    std::string at_plus;
    std::string at_minus;
  };
  std::vector<Row> rows = {{140, "Camera set mode video", "Camera set mode video"},
                           {139, "Camera shot", "Camera shot"}};
  for (const auto& [name, channel] : TextPairs{{"image mode", "153"},
                                               {"ISO", "156"},
                                               {"shutter value", "159"},
                                               {"color mode", "165"},
                                               {"WB", "168"},
                                               {"EV", "172"}}) {
    const std::string next = "Camera set next " + name;
    const std::string prev = "Camera set prev " + name;
    const std::size_t stepper = std::stoul(channel);
    const std::size_t button = stepper + 1;
    rows.push_back({stepper, next, prev});
    rows.push_back({button, next, next});
    rows.push_back({button + 1, prev, prev});
  }
  const auto moves = TextPairs{{"0.25", "+"}, {"0.25"},     {"1e300"}, {"-5e-324", "-"}, {"-inf"},
                               {"nan"},       {"inf", "+"}, {"-0.0"},  {"0.25", "+"},    {"0"}};
  std::vector<bool> is_watched(values_.channels.size());
  for (const Row& row : rows) {
    is_watched[row.channel] = true;
    for (const auto& [value, side] : moves) {
      EXPECT_EQ(FirstLine(row.channel, std::strtod(value.c_str(), nullptr)),
                side == "+"   ? row.at_plus
                : side == "-" ? row.at_minus
                              : "")
          << row.channel << " at " << value;
    }
  }
  for (std::size_t channel = 0; channel < is_watched.size(); ++channel) {
    values_.channels[channel] = is_watched[channel] ? 0 : 1;
  }
  EXPECT_EQ(Look(), "") << "no other channel does anything";
}

TEST_F(RemoteControl, HandlesTheSwitchesInAFixedOrder) {
  values_.channels.fill(1);
  values_.slider_enabled = true;
  UpdateCameraState([](CameraState& state) { state.wb_temp = 5600; });
  HandleRcValues(values_, memory_);
  std::string order;
  for (const std::string& frame : SentFrames()) {
    order += frame.substr(std::string("55 0E 04 66 09 01 40 ").size(), 6);
  }
  EXPECT_EQ(order,
            "02 10 02 01 02 1E 02 1E 02 1E 02 2A 02 2A 02 2A 02 28 02 28 02 28 "
            "02 42 02 42 02 42 02 2C 02 2C 02 2C 02 2E 02 2E 02 2E 02 2E ")
      << "mode, record, then button, button, switch of each setting; the slider last";
  EXPECT_EQ(Log().find("Camera set mode video\nCamera shot\nCamera set next image mode\n"), 0U);
}

TEST_F(RemoteControl, RecordAndModeSwitchFollowTheCamerasMode) {
  const struct {
    std::uint8_t mode;
    const char* record_on;
    const char* record_off;
    const char* mode_log;
  } rows[] = {{1, "Record start\n", "Record stop\n", "Camera set mode photo\n"},
              {0, "Camera shot\n", "", "Camera set mode video\n"},
              {2, "", "", ""},
              {255, "", "", ""}};
  for (const auto& row : rows) {
    SetModeCode(row.mode);
    EXPECT_EQ(Move(139, 1), row.record_on);
    EXPECT_EQ(Move(139, -1), row.record_on);
    EXPECT_EQ(Look(), "");
    EXPECT_EQ(Move(139, 0), row.record_off);
    EXPECT_EQ(Move(140, 1), row.mode_log);
    EXPECT_EQ(Move(140, -1), row.mode_log);
    EXPECT_EQ(Move(140, 0), "");
  }
}

// A status push that comes while the log line "Record start" is being written.
TEST_F(RemoteControl, TakesAPhotoWhenTheCameraLeavesVideoModeAsARecordingStarts) {
  SetModeCode(1);
  values_.channels[139] = 1;
  std::array<int, 2> log{};
  ASSERT_EQ(pipe(log.data()), 0);
  close(log[0]);  // a write without a reader is a signal, right then
  const int standard_error = dup(STDERR_FILENO);
  dup2(log[1], STDERR_FILENO);
  const auto previous = std::signal(SIGPIPE, [](int) { SetModeCode(0); });
  HandleRcValues(values_, memory_);
  std::signal(SIGPIPE, previous);
  dup2(standard_error, STDERR_FILENO);
  EXPECT_EQ(SentFrames(),
            (Frames{"55 0E 04 66 02 01 40 02 02 01", "55 0E 04 66 02 01 40 02 01 01"}));
}

TEST_F(RemoteControl, SliderSetsTheExposureCompensation) {
  values_.slider_enabled = true;
  // The memory starts at -1.
  for (const auto& [value, ev] : TextPairs{{"-1"},
                                           {"0", "0.0"},
                                           {"0.04"},
                                           {"0.06", "0.3"},
                                           {"nan"},
                                           {"0.06"},
                                           {"1", "3.0"},
                                           {"inf"},
                                           {"1e300"},
                                           {"-1e300", "-3.0"},
                                           {"-inf"},
                                           {"-1.0000001"},
                                           {"-0.9"},
                                           {"-0.89", "-2.7"},
                                           {"inf", "3.0"},
                                           {"nan"},
                                           {"-0.0", "0.0"},
                                           {"1", "3.0"}}) {
    EXPECT_EQ(Move(171, std::strtod(value.c_str(), nullptr)),
              ev.empty() ? "" : "Camera set EV " + ev + "\n")
        << value;
  }
  values_.slider_enabled = false;
  EXPECT_EQ(Move(171, -1), "") << "not enabled, not looked at";
  values_.slider_enabled = true;
  EXPECT_EQ(Move(171, 1), "") << "the last index has stayed";
}

}  // namespace
}  // namespace kestrelbridge::test
