// The main application's texts: what they make the camera get, and what they must not do.

#include "control/app_commands.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/camera_end.h"

namespace kestrelbridge::test {
namespace {

using namespace std::string_literals;

class AppCommands : public CameraEnd {
 protected:
  // What is logged beside the text itself, which always comes first.
  std::string Run(const std::string& json) {
    DispatchAppCommand(("!" + json).c_str());
    const std::string log = Log();
    const std::string logged = json.substr(0, json.find('\0'));
    const std::string first = "JSON commands from app: " + logged + "\n";
    EXPECT_TRUE(log.starts_with(first)) << log;
    return log.size() < first.size() ? log : log.substr(first.size());
  }

  // What was sent, from the command set on, each frame in brackets.
  std::string Sent() {
    std::string all;
    for (const std::string& frame : SentFrames()) {
      all += "[" + frame.substr(std::string("55 0D 04 33 02 01 40 ").size()) + "]";
    }
    return all;
  }
};

TEST_F(AppCommands, EveryCommandRunsItsOperation) {
  const struct {
    const char* json;
    const char* sent;
  } rows[] = {
      {R"({"cmd":"record","param":"start"})", "[02 02 01]"},
      {R"({"cmd":"record","param":"stop"})", "[02 02 00]"},
      {R"({"cmd":"shot"})", "[02 01 01]"},
      {R"({"cmd":"camera","param":"mode","value":"video"})", "[02 10 01]"},
      {R"({"cmd":"video_mode","param":"manual"})", "[02 1E 04 00]"},
      {R"({"cmd":"shutter","param":"3.2\""})", "[02 28 01 03 00 02]"},
      {R"({"cmd":"iso","param":"400"})", "[02 2A 05]"},
      {R"({"cmd":"ev","param":"+0.3"})", "[02 2E 11]"},
      {R"({"cmd":"wb","param":"custom","value":"5600"})", "[02 2C 06 38]"},
      {R"({"cmd":"wb","param":"custom"})", ""},
      {R"({"cmd":"wb","param":"custom","value":5600})", ""},
      {R"({"cmd":"wb","param":"neon"})", "[02 2C 05 19]"},
      {R"({"cmd":"color","param":"black white"})", "[02 42 04]"},
      {R"({"cmd":"video_aspect","param":"16:9"})", "[02 12 00 01]"},
      {R"({"cmd":"shotmode","param":"jpg+raw"})", "[02 16 02]"},
      {R"({"cmd":"antiflicker","param":"50"})", "[02 46 01]"},
      {R"({"cmd":"video_std","param":"NTSC"})", "[02 66 01]"},
      {R"({"cmd":"wifi","param":"mode","value":"5.8"})", "[07 10 01][07 15]"},
      {R"({"cmd":"resetcamera"})", "[02 78 00]"},
      {R"({"cmd":"format","param":"sd"})", "[02 72]"},
      {R"({"cmd":"histogram","param":"1"})", "[02 60 01]"},
      {R"({"cmd":"power","param":"sleep"})", "[09 51 01]"},
  };
  for (const auto& row : rows) {
    Run(row.json);
    EXPECT_EQ(Sent(), row.sent) << row.json;
  }
}

TEST_F(AppCommands, TextsThatStillTakeAPhoto) {
  for (const std::string& json :
       {R"({"CMD":"shot"})"s, R"({"cmd":"shot"}xyz)"s,
        R"({"cmd":"shot"}{"cmd":"record","param":"start"})"s,
        R"({"cmd":"shot","cmd":"record","param":"start"})"s,
        R"({"Cmd":"shot","cmd":5,"param":null,"other":[1,{"cmd":"x"}]})"s,
        R"( { "cmd" : "\u0073hot" } )"s, R"({"cmd":"shot","param":"\ud83d\ude00"})"s,
        R"({"cmd":"shot","\u0000":"\\u0000"})"s, "{\"cmd\":\"shot\",\"param\":\"\xff\xfe\x80\"}"s,
        "{\"cmd\":\"shot\"}\0 whatever"s}) {
    EXPECT_EQ(Run(json), "Camera shot\n") << json;
    EXPECT_EQ(SentFrames().size(), 1U);
  }
}

TEST_F(AppCommands, TextsThatDoNothing) {
  std::vector<std::string> texts = {
      // No JSON, or no object.
      "", "not json", "{", "{}", "[]", "null", "\"shot\"", R"(["cmd","shot"])", R"({"cmd":"shot")",
      R"({"cmd":"shot\u00)", R"({"cmd":"shot\ud800"})", R"({"cmd"})", R"({"cmd":"shot",})",
      "\xff\xfe\xfd", "!{\"cmd\":\"shot\"}",
      // Values that are no strings, or not the right ones.
      R"({"cmd":5})", R"({"cmd":null})", R"({"cmd":["shot"]})", R"({"cmd":""})",
      R"({"cmd":"Shot"})", R"({"cmd":"shots"})", R"({"cmd":5,"cmd":"shot"})",
      R"({"x":{"cmd":"shot"}})", R"({"cmd":"record","param":"Start"})",
      R"({"cmd":"camera","param":"mode"})", R"({"cmd":"camera","value":"video"})",
      R"({"cmd":"camera","param":"mode","value":1})", R"({"cmd":"wifi","param":"mode"})",
      R"({"cmd":"camera","param":"zoom","value":"video"})",
      R"({"cmd":"wifi","param":"5.8","value":"5.8"})",
      // An escaped NUL is a character like any other.
      R"({"cmd":"shot\u0000"})", R"({"cmd":"shot\u0000x"})", R"({"cmd\u0000":"shot"})",
      R"({"cmd":"record","param":"start\u0000"})",
      R"({"cmd":"record","param":"start\u0000","param":"start"})", R"({"cmd":"shot\\u0000"})",
      R"({"cmd":"shot\u0000)", "{\"cmd\":\"shot\\",
      // The stack's and the memory's patience.
      R"({"cmd":"shot","x":)" + std::string(9'900, '['),
      R"({"cmd":"shot","x":)" + std::string(4'000, '[') + std::string(4'000, ']') + "}",
      std::string(9'997, '{'), R"({"cmd":")" + std::string(9'900, 'x') + "\"}",
      R"({"cmd":"shot","x":1)" + std::string(9'900, '9')};
  for (const auto& [cmd, ignored] : TextPairs{{"record"},
                                              {"camera"},
                                              {"wifi"},
                                              {"iso"},
                                              {"wb"},
                                              {"shutter"},
                                              {"ev"},
                                              {"color"},
                                              {"video_mode"},
                                              {"video_resolution"},
                                              {"video_aspect"},
                                              {"shotmode"},
                                              {"antiflicker"},
                                              {"video_std"},
                                              {"format"},
                                              {"histogram"},
                                              {"power"}}) {
    for (const char* rest : {"", R"(,"value":"start")", R"(,"param":400)", R"(,"param":["sd"])"}) {
      texts.push_back(R"({"cmd":")" + cmd + "\"" + rest + "}");
    }
  }
  std::string deep_objects;
  while (deep_objects.size() < 9'900) {
    deep_objects += R"({"cmd":)";
  }
  texts.push_back(deep_objects);
  for (const std::string& json : texts) {
    EXPECT_EQ(Run(json) + Sent(), "") << json.substr(0, 60);
  }
}

}  // namespace
}  // namespace kestrelbridge::test
