#include "control/stepping_commands.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "state/camera_state.h"
#include "support/camera_end.h"

namespace kestrelbridge::test {
namespace {

class SteppingCommands : public CameraEnd {
 protected:
  // What is logged by one step from a state in which every stepped setting has this word.
  std::string StepFrom(const std::string& word, void (*step)()) {
    UpdateCameraState([&word](CameraState& state) {
      for (const std::span<char> text : {std::span<char>(state.image_mode),
                                         {state.shutter_set},
                                         {state.iso_set},
                                         {state.ev},
                                         {state.wb},
                                         {state.color_mode}}) {
        std::snprintf(text.data(), text.size(), "%s", word.c_str());
      }
    });
    step();
    EXPECT_EQ(SentFrames().size(), 1U) << word;
    return Log();
  }
};

TEST_F(SteppingCommands, GoToTheNeighbourRoundAndRoundAndFromAnyOtherWordAsFromTheFirst) {
  const struct {
    void (*next)();
    void (*prev)();
    std::string name;
    std::string log;  // comes before the new word
    TextPairs words;  // in order, with what is logged where that differs
  } rows[] = {
      {NextImageMode,
       PrevImageMode,
       "image mode",
       "Camera set video mode ",
       {{"auto"}, {"manual"}}},
      {NextShutter,
       PrevShutter,
       "shutter value",
       "new shutter value = ",
       {{"8\""},    {"7\""},    {"6\""},    {"5\""},    {"4\""},    {"3.2\""},  {"3\""},
        {"2.5\""},  {"2\""},    {"1.6\""},  {"1.3\""},  {"1\""},    {"1/1.25"}, {"1/1.67"},
        {"1/2"},    {"1/2.5"},  {"1/3"},    {"1/4"},    {"1/5"},    {"1/6.25"}, {"1/8"},
        {"1/10"},   {"1/12.5"}, {"1/15"},   {"1/20"},   {"1/25"},   {"1/30"},   {"1/40"},
        {"1/50"},   {"1/60"},   {"1/80"},   {"1/100"},  {"1/120"},  {"1/160"},  {"1/200"},
        {"1/240"},  {"1/320"},  {"1/400"},  {"1/500"},  {"1/640"},  {"1/800"},  {"1/1000"},
        {"1/1250"}, {"1/1600"}, {"1/2000"}, {"1/2500"}, {"1/3200"}, {"1/4000"}, {"1/5000"},
        {"1/6400"}, {"1/8000"}}},
      {NextIso,
       PrevIso,
       "ISO",
       "Camera set iso ",
       {{"0"}, {"100"}, {"200"}, {"400"}, {"800"}, {"1600"}, {"3200"}}},
      {NextEv,
       PrevEv,
       "EV",
       "Camera set EV ",
       {{"-3.0"},
        {"-2.7"},
        {"-2.3"},
        {"-2.0"},
        {"-1.7"},
        {"-1.3"},
        {"-1.0"},
        {"-0.7"},
        {"-0.3"},
        {"0", "0.0"},
        {"+0.3", "0.3"},
        {"+0.7", "0.7"},
        {"+1.0", "1.0"},
        {"+1.3", "1.3"},
        {"+1.7", "1.7"},
        {"+2.0", "2.0"},
        {"+2.3", "2.3"},
        {"+2.7", "2.7"},
        {"+3.0", "3.0"}}},
      {NextColor, PrevColor, "color mode", "Set color ", {{"none"}, {"d-clike"}}},
  };
  for (const auto& row : rows) {
    const TextPairs& words = row.words;
    const std::size_t count = words.size();
    const auto line_to = [&](std::size_t position) {
      const auto& [word, logged] = words[position % count];
      const std::string line = row.log + (logged.empty() ? word : logged) + "\n";
      return row.next != NextShutter ? line : line + "Camera set shutter " + word + "\n";
    };
    for (std::size_t i = 0; i < count; ++i) {
      EXPECT_EQ(StepFrom(words[i].first, row.next),
                "Camera set next " + row.name + "\n" + line_to(i + 1));
      EXPECT_EQ(StepFrom(words[i].first, row.prev),
                "Camera set prev " + row.name + "\n" + line_to(i + count - 1));
    }
    for (const char* other : {"", "30\"", "6400", "0.0", "vivid", "D-CLIKE", "shutter"}) {
      EXPECT_EQ(StepFrom(other, row.next), "Camera set next " + row.name + "\n" + line_to(1));
      EXPECT_EQ(StepFrom(other, row.prev),
                "Camera set prev " + row.name + "\n" + line_to(count - 1));
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
  EXPECT_EQ(StepFrom("custom", NextWhiteBalance), "Camera set next WB\nCamera set WB auto\n");
}

}  // namespace
}  // namespace kestrelbridge::test
