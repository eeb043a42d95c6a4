// Switches and slider, look by look: no thread, no waiting.

#include "control/remote_control.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "control/camera_end.h"
#include "state/camera_state.h"

namespace kestrelbridge {
namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

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
  const auto next = [](const char* name) { return "Camera set next " + std::string(name); };
  const auto prev = [](const char* name) { return "Camera set prev " + std::string(name); };
  std::vector<Row> rows = {{140, "Camera set mode video", "Camera set mode video"},
                           {139, "Camera shot", "Camera shot"}};
  const auto add = [&](std::size_t stepper, const char* name, std::size_t button) {
    rows.push_back({stepper, next(name), prev(name)});
    rows.push_back({button, next(name), next(name)});
    rows.push_back({button + 1, prev(name), prev(name)});
  };
  add(153, "image mode", 154);
  add(156, "ISO", 157);
  add(159, "shutter value", 160);
  add(165, "color mode", 166);
  add(168, "WB", 169);
  add(172, "EV", 173);
  for (const Row& row : rows) {
    for (int repetition = 0; repetition < 2; ++repetition) {
      EXPECT_EQ(FirstLine(row.channel, 0.25), row.at_plus) << row.channel;
      EXPECT_EQ(Look(), "") << "held";
      EXPECT_EQ(FirstLine(row.channel, 1e300), "") << "still the same position";
      EXPECT_EQ(FirstLine(row.channel, -5e-324), row.at_minus) << row.channel;
      EXPECT_EQ(FirstLine(row.channel, -kInfinity), "");
      EXPECT_EQ(FirstLine(row.channel, kNan), "") << "position 0";
      EXPECT_EQ(FirstLine(row.channel, kInfinity), row.at_plus);
      EXPECT_EQ(FirstLine(row.channel, -0.0), "");
    }
  }
}

TEST_F(RemoteControl, NoOtherChannelDoesAnything) {
  const std::vector<std::size_t> watched = {139, 140, 153, 154, 155, 156, 157, 158, 159, 160, 161,
                                            165, 166, 167, 168, 169, 170, 171, 172, 173, 174};
  values_.channels.fill(1);
  for (const std::size_t channel : watched) {
    values_.channels[channel] = 0;
  }
  EXPECT_EQ(Look(), "");
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
            "02 10 02 01 "
            "02 1E 02 1E 02 1E "
            "02 2A 02 2A 02 2A "
            "02 28 02 28 02 28 "
            "02 42 02 42 02 42 "
            "02 2C 02 2C 02 2C "
            "02 2E 02 2E 02 2E 02 2E ")
      << "mode, record, then button, button, switch of each setting; the slider last";
  EXPECT_EQ(Log().find("Camera set mode video\nCamera shot\nCamera set next image mode\n"), 0U);
}

TEST_F(RemoteControl, RecordSwitchRecordsInVideoModeAndShootsInPhotoMode) {
  struct Row {
    std::uint8_t mode;
    std::string at_plus;
    std::string at_minus;
    std::string at_zero;
  };
  for (const Row& row : std::vector<Row>{{1, "Record start\n", "Record start\n", "Record stop\n"},
                                         {0, "Camera shot\n", "Camera shot\n", ""},
                                         {2, "", "", ""},
                                         {255, "", "", ""}}) {
    SetModeCode(row.mode);
    EXPECT_EQ(Move(139, 1), row.at_plus);
    EXPECT_EQ(Move(139, -1), row.at_minus);
    EXPECT_EQ(Look(), "");
    EXPECT_EQ(Move(139, 0), row.at_zero);
  }
}

TEST_F(RemoteControl, ModeSwitchSwapsPhotoAndVideo) {
  for (const auto& [mode, log] : std::vector<std::pair<std::uint8_t, std::string>>{
           {1, "Camera set mode photo\n"}, {0, "Camera set mode video\n"}, {2, ""}, {23, ""}}) {
    SetModeCode(mode);
    EXPECT_EQ(Move(140, 1), log);
    EXPECT_EQ(Move(140, -1), log);
    EXPECT_EQ(Move(140, 0), "");
  }
}

// A status push that comes while the log line "Record start" is being written.
TEST_F(RemoteControl, TakesAPhotoWhenTheCameraLeavesVideoModeAsARecordingStarts) {
  SetModeCode(1);
  values_.channels[139] = 1;
  const cookie_io_functions_t functions = {
      .read = nullptr,
      .write = [](void*, const char*, std::size_t size) -> ssize_t {
        SetModeCode(0);
        return static_cast<ssize_t>(size);
      },
      .seek = nullptr,
      .close = nullptr};
  std::FILE* const log = stderr;
  stderr = fopencookie(nullptr, "w", functions);
  ASSERT_NE(stderr, nullptr);
  std::setvbuf(stderr, nullptr, _IONBF, 0);
  HandleRcValues(values_, memory_);
  std::fclose(stderr);
  stderr = log;
  EXPECT_EQ(SentFrames(),
            (Frames{"55 0E 04 66 02 01 40 02 02 01", "55 0E 04 66 02 01 40 02 01 01"}));
}

TEST_F(RemoteControl, SliderSetsTheExposureCompensation) {
  struct Row {
    double value;
    std::string ev;  // empty: nothing sent
  };
  values_.slider_enabled = true;
  for (const Row& row : std::vector<Row>{{-1, ""},  // where the memory starts
                                         {0, "0.0"},
                                         {0.04, ""},
                                         {0.06, "0.3"},
                                         {kNan, ""},
                                         {0.06, ""},
                                         {1, "3.0"},
                                         {kInfinity, ""},
                                         {1e300, ""},
                                         {-1e300, "-3.0"},
                                         {-kInfinity, ""},
                                         {-1.0000001, ""},
                                         {-0.9, ""},
                                         {-0.89, "-2.7"},
                                         {kInfinity, "3.0"},
                                         {kNan, ""},
                                         {-0.0, "0.0"}}) {
    EXPECT_EQ(Move(171, row.value), row.ev.empty() ? "" : "Camera set EV " + row.ev + "\n")
        << row.value;
  }
}

TEST_F(RemoteControl, SliderThatIsNotEnabledIsNotLookedAt) {
  EXPECT_EQ(Move(171, 1), "");
  values_.slider_enabled = true;
  EXPECT_EQ(Look(), "Camera set EV 3.0\n");
  values_.slider_enabled = false;
  EXPECT_EQ(Move(171, -1), "");
  values_.slider_enabled = true;
  EXPECT_EQ(Move(171, 1), "") << "the last index has stayed";
}

TEST_F(RemoteControl, SurvivesAnyBits) {
  SetModeCode(1);
  values_.slider_enabled = true;
  for (const double value : {kNan, kInfinity, -kInfinity, 1e300, -1e300, 5e-324,
                             std::numeric_limits<double>::signaling_NaN(), -kNan}) {
    values_.channels.fill(value);
    Look();
  }
}

}  // namespace
}  // namespace kestrelbridge
