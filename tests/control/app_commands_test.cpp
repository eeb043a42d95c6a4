// The main application's texts: what they make the camera get, and what they must not do.

#include "control/app_commands.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "control/camera_end.h"

namespace kestrelbridge {
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
    return log.substr(std::min(first.size(), log.size()));
  }
};

TEST_F(AppCommands, EveryCommandRunsItsOperation) {
  struct Row {
    std::string json;
    std::string log;
    Frames frames;
  };
  const std::string k14 = "55 0E 04 66 02 01 40 ";
  const std::string k15 = "55 0F 04 A2 02 01 40 ";
  const std::vector<Row> rows = {
      {R"({"cmd":"record","param":"start"})", "Record start\n", {k14 + "02 02 01"}},
      {R"({"cmd":"record","param":"stop"})", "Record stop\n", {k14 + "02 02 00"}},
      {R"({"cmd":"shot"})", "Camera shot\n", {k14 + "02 01 01"}},
      {R"({"cmd":"camera","param":"mode","value":"video"})",
       "Camera set mode video\n",
       {"55 0E 04 66 09 01 40 02 10 01"}},
      {R"({"cmd":"video_mode","param":"manual"})",
       "Camera set video mode manual\n",
       {k15 + "02 1E 04 00"}},
      {R"({"cmd":"shutter","param":"3.2\""})",
       "Camera set shutter 3.2\"\n",
       {"55 11 04 92 02 01 40 02 28 01 03 00 02"}},
      {R"({"cmd":"iso","param":"400"})", "Camera set iso 400\n", {k14 + "02 2A 05"}},
      {R"({"cmd":"ev","param":"+0.3"})", "Camera set EV 0.3\n", {k14 + "02 2E 11"}},
      {R"({"cmd":"wb","param":"custom","value":"5600"})",
       "Camera set WB custom\nCamera set WB temperature 5600\n",
       {k15 + "02 2C 06 38"}},
      {R"({"cmd":"wb","param":"custom"})", "Camera set WB custom\n", {}},
      {R"({"cmd":"wb","param":"custom","value":5600})", "Camera set WB custom\n", {}},
      {R"({"cmd":"wb","param":"neon"})", "Camera set WB neon\n", {k15 + "02 2C 05 19"}},
      {R"({"cmd":"color","param":"black white"})", "Set color black white\n", {k14 + "02 42 04"}},
      {R"({"cmd":"video_aspect","param":"16:9"})",
       "Camera set image aspect ratio 16:9\n",
       {k15 + "02 12 00 01"}},
      {R"({"cmd":"shotmode","param":"jpg+raw"})",
       "Camera set shot mode jpg+raw\n",
       {k14 + "02 16 02"}},
      {R"({"cmd":"antiflicker","param":"50"})", "Camera set anti-flicker 50\n", {k14 + "02 46 01"}},
      {R"({"cmd":"video_std","param":"NTSC"})",
       "Camera set video standard NTSC\n",
       {k14 + "02 66 01"}},
      {R"({"cmd":"wifi","param":"mode","value":"5.8"})",
       "Set Osmo Wi-Fi mode to 5.8\n",
       {"55 0E 04 66 02 07 40 07 10 01", "55 0D 04 33 02 07 40 07 15"}},
      {R"({"cmd":"resetcamera"})", "", {k14 + "02 78 00"}},
      {R"({"cmd":"format","param":"sd"})", "Format microSD card\n", {"55 0D 04 33 02 01 40 02 72"}},
      {R"({"cmd":"histogram","param":"1"})", "", {k14 + "02 60 01"}},
      {R"({"cmd":"power","param":"sleep"})", "", {"55 0E 04 66 02 09 40 09 51 01"}},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(Run(row.json), row.log) << row.json;
    EXPECT_EQ(SentFrames(), row.frames) << row.json;
  }
}

// 41 words, each with the codes of its size and rate.
TEST_F(AppCommands, ResolutionWordsAreThoseThatTheCameraTakes) {
  struct Size {
    std::string word;
    std::string code;
    std::vector<int> rates;
  };
  const std::vector<Size> sizes = {
      {"4096x2160", "16", {25, 24}},
      {"4000x3000", "30", {30, 25, 24}},
      {"3840x2160", "10", {60, 50, 48, 30, 25, 24}},
      {"2720x2040", "34", {30, 25, 24}},
      {"2720x1530", "1F", {60, 50, 48, 30, 25, 24}},
      {"2704x1520", "18", {30, 25, 24}},
      {"1920x1080", "0A", {240, 200, 120, 100, 60, 50, 48, 30, 25, 24}},
      {"1280x720", "04", {240, 200, 60, 50, 48, 30, 25, 24}},
  };
  const std::vector<std::pair<int, std::string>> rates = {
      {24, "01"},  {25, "02"},  {30, "03"},  {48, "04"},  {50, "05"}, {60, "06"}, {90, "00"},
      {100, "0A"}, {120, "07"}, {200, "13"}, {240, "08"}, {0, ""},    {-30, ""}};
  int accepted = 0;
  for (const Size& size : sizes) {
    for (const auto& [rate, code] : rates) {
      const std::string word = size.word + "@" + std::to_string(rate);
      const std::string log = Run(R"({"cmd":"video_resolution","param":")" + word + "\"}");
      if (std::ranges::count(size.rates, rate) == 0) {
        EXPECT_EQ(log, "");
        EXPECT_EQ(SentFrames(), Frames{}) << word;
        continue;
      }
      ++accepted;
      EXPECT_EQ(log, "Camera set video resolution " + word + "\n");
      const std::string codes = size.code + " " + code;
      EXPECT_EQ(SentFrames(), (Frames{"55 12 04 C7 02 01 40 02 18 " + codes + " 00 00 00",
                                      "55 0F 04 A2 02 01 40 02 AF " + codes}));
    }
  }
  EXPECT_EQ(accepted, 41);
  for (const char* word : {"", "1920x1080", "1920x1080@60 ", "01920x1080@60", "1920X1080@60"}) {
    EXPECT_EQ(Run(R"({"cmd":"video_resolution","param":")"s + word + "\"}"), "") << word;
  }
}

TEST_F(AppCommands, TextsThatStillTakeAPhoto) {
  for (const std::string& json : {
           R"({"CMD":"shot"})"s,
           R"({"cmd":"shot"}xyz)"s,
           R"({"cmd":"shot"}{"cmd":"record","param":"start"})"s,
           R"({"cmd":"shot","cmd":"record","param":"start"})"s,
           R"({"Cmd":"shot","cmd":5,"param":null,"other":[1,{"cmd":"x"}]})"s,
           R"( { "cmd" : "\u0073hot" } )"s,
           R"({"cmd":"shot\u0000","param":"\ud83d\ude00"})"s,  // the text ends there
           "{\"cmd\":\"shot\",\"param\":\"\xff\xfe\x80\"}"s,
           "{\"cmd\":\"shot\"}\0 whatever"s,
       }) {
    EXPECT_EQ(Run(json), "Camera shot\n") << json;
    EXPECT_EQ(SentFrames().size(), 1U);
  }
}

TEST_F(AppCommands, TextsThatDoNothing) {
  const std::string deep_arrays = R"({"cmd":"shot","x":)" + std::string(9'900, '[');
  const std::string deep_closed =
      R"({"cmd":"shot","x":)" + std::string(4'000, '[') + std::string(4'000, ']') + "}";
  std::string deep_objects;
  while (deep_objects.size() < 9'900) {
    deep_objects += R"({"cmd":)";
  }
  for (const std::string& json : std::vector<std::string>{
           "",
           "not json",
           "{",
           "}",
           "{}",
           "[]",
           "null",
           "5",
           "\"shot\"",
           R"(["cmd","shot"])",
           R"({"cmd":"shot")",
           R"({"cmd":"sho)",
           R"({"cmd":"shot\)",
           R"({"cmd":"shot\u00)",
           R"({"cmd":"shot\ud800"})",
           R"({"cmd":"\x"})",
           R"({'cmd':'shot'})",
           R"({"cmd"})",
           R"({"cmd":"shot",})",
           "\xff\xfe\xfd",
           "!{\"cmd\":\"shot\"}",
           // Values that are no strings, or not the right ones.
           R"({"cmd":5})",
           R"({"cmd":null})",
           R"({"cmd":["shot"]})",
           R"({"cmd":true})",
           R"({"cmd":""})",
           R"({"cmd":"Shot"})",
           R"({"cmd":" shot"})",
           R"({"cmd":"shots"})",
           R"({"cmd":5,"cmd":"shot"})",
           R"({"param":"start"})",
           R"({"x":{"cmd":"shot"}})",
           R"({"cmd":"record"})",
           R"({"cmd":"record","param":"pause"})",
           R"({"cmd":"record","param":"Start"})",
           R"({"cmd":"record","value":"start"})",
           R"({"cmd":"camera","param":"photo"})",
           R"({"cmd":"camera","param":"mode"})",
           R"({"cmd":"camera","value":"video"})",
           R"({"cmd":"camera","param":"mode","value":1})",
           R"({"cmd":"camera","param":"zoom","value":"video"})",
           R"({"cmd":"wifi","param":"mode"})",
           R"({"cmd":"wifi","param":"5.8","value":"5.8"})",
           R"({"cmd":"iso","param":400})",
           R"({"cmd":"wb","value":"5600"})",
           R"({"cmd":"shutter"})",
           R"({"cmd":"ev"})",
           R"({"cmd":"color"})",
           R"({"cmd":"video_mode"})",
           R"({"cmd":"video_resolution"})",
           R"({"cmd":"video_aspect"})",
           R"({"cmd":"shotmode"})",
           R"({"cmd":"antiflicker"})",
           R"({"cmd":"video_std"})",
           R"({"cmd":"format"})",
           R"({"cmd":"histogram"})",
           R"({"cmd":"power"})",
           R"({"cmd":"power","param":["sleep"]})",
           // The stack's and the memory's patience.
           deep_arrays,
           deep_closed,
           deep_objects,
           std::string(9'997, '{'),
           R"({"cmd":")" + std::string(9'900, 'x') + "\"}",
           R"({"cmd":"shot","x":1)" + std::string(9'900, '9'),
       }) {
    EXPECT_EQ(Run(json), "") << json.substr(0, 60);
    EXPECT_EQ(SentFrames(), Frames{}) << json.substr(0, 60);
  }
}

TEST_F(AppCommands, WithoutTheMarkerATextIsNotEvenLogged) {
  for (const char* text : {"", "{\"cmd\":\"shot\"}", " !{\"cmd\":\"shot\"}"}) {
    DispatchAppCommand(text);
    EXPECT_EQ(Log(), "") << text;
  }
}

}  // namespace
}  // namespace kestrelbridge
