// The command tool's words against the daemon's dispatcher: what the one lists, the other takes.
#include "tools/main_app/command_forms.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "control/app_commands.h"
#include "support/camera_end.h"
#include "tools/common/tool_error.h"

namespace kestrelbridge::test {
namespace {

using Typed = std::vector<std::string>;

using CommandFormsTest = CameraEnd;

std::vector<Typed> AllTyped(const tools::CommandForm& form) {
  Typed opening = {std::string(form.cmd)};
  if (!form.param.empty()) {
    opening.emplace_back(form.param);
  }
  if (form.words == nullptr) {
    return {opening};
  }
  std::vector<Typed> all;
  for (const tools::CommandWord& word : form.words()) {
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
  for (const tools::CommandForm& form : tools::CommandForms()) {
    std::set<Frames> sent;
    for (const Typed& words : AllTyped(form)) {
      DispatchAppCommand(("!" + tools::RequestOfWords(words).json).c_str());
      const Frames frames = SentFrames();
      EXPECT_FALSE(frames.empty()) << words[0] << " " << words.back();
      EXPECT_TRUE(sent.insert(frames).second) << words[0] << " " << words.back();
      ++commands;
    }
  }
  EXPECT_EQ(commands, 172);
}

TEST(CommandForms, RefuseWhatDoesNotExist) {
  for (const Typed& words : std::vector<Typed>{{"Shot"},
                                               {"iso"},
                                               {"iso", "12800"},
                                               {"shot", "now"},
                                               {"camera", "photo"},
                                               {"wb", "custom"},
                                               {"wb", "custom", "1999"},
                                               {"wb", "auto", "5600"}}) {
    EXPECT_THROW(tools::RequestOfWords(words), tools::ToolError) << words.front();
  }
}

}  // namespace
}  // namespace kestrelbridge::test
