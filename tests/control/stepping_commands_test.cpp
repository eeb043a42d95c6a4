#include "control/stepping_commands.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "control/camera_end.h"
#include "state/camera_state.h"
#include "state/vocabulary.h"

namespace kestrelbridge {
namespace {

class SteppingCommands : public CameraEnd {
 protected:
  // What is logged by one step from a state in which every stepped setting has this word.
  std::string StepFrom(const char* word, void (*step)()) {
    UpdateCameraState([word](CameraState& state) {
      const auto put = [word](auto& text) { std::snprintf(text, sizeof text, "%s", word); };
      put(state.image_mode);
      put(state.shutter_set);
      put(state.iso_set);
      put(state.ev);
      put(state.wb);
      put(state.color_mode);
    });
    step();
    EXPECT_EQ(SentFrames().size(), 1U) << word;
    return Log();
  }
};

TEST_F(SteppingCommands, StepToTheNeighbourRoundAndRound) {
  struct Row {
    void (*step)();
    const char* from;
    std::string log;
  };
  const std::vector<Row> rows = {
      {NextImageMode, "auto", "Camera set next image mode\nCamera set video mode manual\n"},
      {NextImageMode, "manual", "Camera set next image mode\nCamera set video mode auto\n"},
      {PrevImageMode, "auto", "Camera set prev image mode\nCamera set video mode manual\n"},
      {PrevImageMode, "shutter", "Camera set prev image mode\nCamera set video mode manual\n"},
      {NextShutter, "1/8000",
       "Camera set next shutter value\nnew shutter value = 8\"\nCamera set shutter 8\"\n"},
      {NextShutter, "",
       "Camera set next shutter value\nnew shutter value = 7\"\nCamera set shutter 7\"\n"},
      {NextShutter, "30\"",
       "Camera set next shutter value\nnew shutter value = 7\"\nCamera set shutter 7\"\n"},
      {PrevShutter, "",
       "Camera set prev shutter value\nnew shutter value = 1/8000\nCamera set shutter 1/8000\n"},
      {PrevShutter, "1/1.67",
       "Camera set prev shutter value\nnew shutter value = 1/1.25\nCamera set shutter 1/1.25\n"},
      {NextIso, "3200", "Camera set next ISO\nCamera set iso 0\n"},
      {NextIso, "auto", "Camera set next ISO\nCamera set iso 100\n"},
      {PrevIso, "auto", "Camera set prev ISO\nCamera set iso 3200\n"},
      {PrevIso, "0", "Camera set prev ISO\nCamera set iso 3200\n"},
      {PrevIso, "6400", "Camera set prev ISO\nCamera set iso 3200\n"},
      {PrevIso, "100", "Camera set prev ISO\nCamera set iso 0\n"},
      {NextEv, "+3.0", "Camera set next EV\nCamera set EV -3.0\n"},
      {NextEv, "0.0", "Camera set next EV\nCamera set EV -2.7\n"},
      {NextEv, "-0.3", "Camera set next EV\nCamera set EV 0.0\n"},
      {PrevEv, "-3.0", "Camera set prev EV\nCamera set EV 3.0\n"},
      {PrevEv, "0", "Camera set prev EV\nCamera set EV -0.3\n"},
      {NextColor, "vivid", "Camera set next color mode\nSet color d-clike\n"},
      {NextColor, "d-clike", "Camera set next color mode\nSet color none\n"},
      {PrevColor, "none", "Camera set prev color mode\nSet color d-clike\n"},
      {PrevColor, "D-CLIKE", "Camera set prev color mode\nSet color d-clike\n"},
      {NextWhiteBalance, "custom", "Camera set next WB\nCamera set WB auto\n"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(StepFrom(row.from, row.step), row.log) << row.from;
  }
}

TEST_F(SteppingCommands, VisitEveryStepAndComeBack) {
  struct Row {
    void (*next)();
    void (*prev)();
    Steps steps;
    std::string log;  // what comes before the word
  };
  for (const Row& row :
       std::vector<Row>{{NextShutter, PrevShutter, kShutterSteps, "new shutter value = "},
                        {NextIso, PrevIso, kIsoSteps, "Camera set iso "}}) {
    const std::size_t count = row.steps.size();
    for (std::size_t i = 0; i < count; ++i) {
      const auto line = [&](std::size_t position) {
        return row.log + std::string(row.steps[position % count]) + "\n";
      };
      EXPECT_NE(StepFrom(row.steps[i].data(), row.next).find(line(i + 1)), std::string::npos);
      EXPECT_NE(StepFrom(row.steps[i].data(), row.prev).find(line(i + count - 1)),
                std::string::npos);
    }
  }
}

TEST_F(SteppingCommands, WhiteBalancePassesTheTemperatureLastAskedForOrElseTheReportedOne) {
  UpdateCameraState([](CameraState& state) { state.wb_temp = 5600; });
  const std::string start = "Camera set prev WB\nCamera set WB custom\nCamera set WB temperature ";
  EXPECT_EQ(StepFrom("sunny", PrevWhiteBalance), start + "5600\n\n");
  EXPECT_EQ(SnapshotCameraState().wb_temp_set, 5600);
  UpdateCameraState([](CameraState& state) {
    state.wb_temp = 3000;
    state.wb_temp_set = 7249.5F;
  });
  EXPECT_EQ(StepFrom("auto", PrevWhiteBalance), start + "7250\n\n");
}

}  // namespace
}  // namespace kestrelbridge
