// The command tool's words against the daemon's dispatcher: what the one lists, the other takes.
#include "tools/command_forms.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "control/app_commands.h"
#include "control/camera_end.h"
#include "tools/tool_error.h"

namespace kestrelbridge {
namespace {

using Typed = std::vector<std::string>;

class CommandFormsTest : public CameraEnd {
 protected:
  Frames FramesOf(const Typed& words) {
    DispatchAppCommand(("!" + RequestOfWords(words).json).c_str());
    return SentFrames();
  }
};

std::vector<Typed> AllTyped(const CommandForm& form) {
  Typed opening = {std::string(form.cmd)};
  if (!form.param.empty()) {
    opening.emplace_back(form.param);
  }
  if (form.words == nullptr) {
    return {opening};
  }
  std::vector<Typed> all;
  for (const CommandWord& word : form.words()) {
    all.push_back(opening);
    all.back().emplace_back(word.word);
    if (word.word == "custom") {
      all.back().emplace_back("5600");
    }
  }
  return all;
}

// A word that the daemon does not know would send nothing, or what another word sends.
TEST_F(CommandFormsTest, TheDaemonTakesEveryWordForWhatItIs) {
  int commands = 0;
  for (const CommandForm& form : CommandForms()) {
    std::set<Frames> sent;
    for (const Typed& words : AllTyped(form)) {
      const Frames frames = FramesOf(words);
      EXPECT_FALSE(frames.empty()) << words[0] << " " << words.back();
      EXPECT_TRUE(sent.insert(frames).second) << words[0] << " " << words.back();
      ++commands;
    }
  }
  EXPECT_EQ(commands, 172);
}

TEST_F(CommandFormsTest, HelpListsEveryCommand) {
  const std::string help = CommandFormsText();
  for (const CommandForm& form : CommandForms()) {
    EXPECT_NE(help.find("  " + std::string(form.cmd)), std::string::npos) << form.cmd;
  }
  EXPECT_NE(help.find(" '8\"' "), std::string::npos) << "as it is to be typed";
}

TEST(CommandForms, TellHowTelemetryShowsTheEffect) {
  const struct {
    Typed words;
    const char* effect;
  } rows[] = {
      {{"iso", "400"}, "iso_set=400"},
      {{"iso", "auto"}, "iso_set=auto"},
      {{"camera", "mode", "photo"}, "camera_mode=photo"},
      {{"shotmode", "jpg+raw"}, "shot_mode=JPG+RAW"},
      {{"antiflicker", "50"}, "antiflicker=50 Hz"},
      {{"antiflicker", "auto"}, "antiflicker=auto"},
      {{"wb", "neon"}, "wb=neon"},
      {{"wb", "custom", "5650"}, "wb=custom, wb_temp=5600"},
      {{"video_resolution", "1280x720@24"}, "format=1280x720@24"},
      {{"shutter", "2.5\""}, "shutter_set=2.5\""},
      {{"ev", "0"}, "ev=0"},
      {{"record", "start"}, "rec_time counts"},
      {{"record", "stop"}, "rec_time stands still"},
      {{"shot"}, "shots_left falls"},
      {{"histogram", "0"}, "no histogram records come"},
      {{"power", "sleep"}, ""},
      {{"resetcamera"}, ""},
      {{"wifi", "mode", "5.8"}, ""},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(EffectText(RequestOfWords(row.words).effect), row.effect);
  }
}

TEST(CommandForms, RefuseWhatDoesNotExistAndListWhatDoes) {
  const struct {
    Typed words;
    const char* part;  // of the message
  } rows[] = {
      {{"Shot"}, "no command \"Shot\"; there are\n  record, shot, camera mode,"},
      {{""}, "no command \"\""},
      {{"\x1b[2J"}, "no command \"?[2J\""},
      {{"iso"}, "\"iso\" takes one of\n  auto 100 200"},
      {{"iso", "12800"}, "\"iso\" takes one of"},
      {{"iso", "400", "400"}, "\"iso\" takes one of"},
      {{"shot", "now"}, "\"shot\" takes no word"},
      {{"camera", "photo"}, "\"camera mode\" takes one of\n  photo video"},
      {{"camera"}, "\"camera mode\" takes one of"},
      {{"camera", "mode", "x"}, "\"camera mode\" takes one of"},
      {{"color", "black"}, "'black white'"},
      {{"wb", "custom"}, "KELVIN: whole kelvin, 2000 to 10000"},
      {{"wb", "custom", "1999"}, "KELVIN"},
      {{"wb", "custom", "10001"}, "KELVIN"},
      {{"wb", "custom", "5600K"}, "KELVIN"},
      {{"wb", "auto", "5600"}, "KELVIN"},
      {{"video_resolution", "1280x720@120"}, "1280x720@200"},
  };
  for (const auto& row : rows) {
    try {
      RequestOfWords(row.words);
      ADD_FAILURE() << row.part;
    } catch (const ToolError& error) {
      EXPECT_NE(std::string(error.what()).find(row.part), std::string::npos) << error.what();
      EXPECT_EQ(error.exit_code(), 1);
    }
  }
}

TEST(CommandForms, MakeJsonOfAnyWords) {
  EXPECT_EQ(JsonOfWords(Typed{"wb", "custom", "56\"00"}),
            R"({"cmd":"wb","param":"custom","value":"56\"00"})");
  EXPECT_THROW(JsonOfWords(Typed{"a", "b", "c", "d"}), ToolError);
}

}  // namespace
}  // namespace kestrelbridge
