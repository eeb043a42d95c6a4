// Every camera operation with every kind of argument: the exact frames, the exact log lines.

#include "control/camera_commands.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "control/camera_end.h"
#include "state/camera_state.h"

namespace kestrelbridge {
namespace {

// Start, length, format, header check sum, sender, receiver and flags of a frame to the camera.
const std::string k13 = "55 0D 04 33 02 01 40 ";
const std::string k14 = "55 0E 04 66 02 01 40 ";
const std::string k15 = "55 0F 04 A2 02 01 40 ";
const std::string k17 = "55 11 04 92 02 01 40 ";
const std::string k18 = "55 12 04 C7 02 01 40 ";
const std::string kMode = "55 0E 04 66 09 01 40 ";    // of another sender
const std::string kWifi14 = "55 0E 04 66 02 07 40 ";  // to the Wi-Fi
const std::string kWifi13 = "55 0D 04 33 02 07 40 ";
const std::string kPower = "55 0E 04 66 02 09 40 ";  // to the power supply

using CameraCommands = CameraEnd;

TEST_F(CameraCommands, ActionsSendTheirFrame) {
  SetRecording(true);
  EXPECT_EQ(SentFrames(), Frames{k14 + "02 02 01"});
  SetRecording(false);
  EXPECT_EQ(SentFrames(), Frames{k14 + "02 02 00"});
  TakeShot();
  EXPECT_EQ(SentFrames(), Frames{k14 + "02 01 01"});
  ResetCamera();
  EXPECT_EQ(SentFrames(), Frames{k14 + "02 78 00"});
  EXPECT_EQ(Log(), "Record start\nRecord stop\nCamera shot\n");
}

TEST_F(CameraCommands, SettingsSendTheCodeOfTheirWord) {
  struct Row {
    void (*set)(const char*);
    std::string log;  // and the word
    std::vector<std::pair<const char*, Frames>> words;
  };
  const Frames nothing;
  const std::vector<Row> rows = {
      {SetVideoMode,
       "Camera set video mode ",
       {{"auto", {k15 + "02 1E 01 00"}},
        {"shutter", {k15 + "02 1E 02 00"}},
        {"aperture", {k15 + "02 1E 03 00"}},
        {"manual", {k15 + "02 1E 04 00"}},
        {"Auto", nothing},
        {" auto", nothing},
        {"", nothing}}},
      {SetColor,
       "Set color ",
       {{"none", {k14 + "02 42 00"}},
        {"art", {k14 + "02 42 01"}},
        {"black white", {k14 + "02 42 04"}},
        {"vivid", {k14 + "02 42 05"}},
        {"d-cinelike", {k14 + "02 42 06"}},
        {"portrait", {k14 + "02 42 07"}},
        {"beach", {k14 + "02 42 0E"}},
        {"dream", {k14 + "02 42 10"}},
        {"classic", {k14 + "02 42 12"}},
        {"nostalgia", {k14 + "02 42 13"}},
        {"d-log", {k14 + "02 42 17"}},
        {"d-clike", {k14 + "02 42 34"}},
        {"Vivid", {k14 + "02 42 00"}},
        {"", {k14 + "02 42 00"}}}},
      {SetShutter,
       "Camera set shutter ",
       {{"30\"", {k17 + "02 28 01 1E 00 00"}},
        {"3.2\"", {k17 + "02 28 01 03 00 02"}},
        {"2.5\"", {k17 + "02 28 01 02 00 05"}},
        {"1.6\"", {k17 + "02 28 01 01 00 06"}},
        {"1/1.25", {k17 + "02 28 01 01 80 19"}},
        {"1/1.67", {k17 + "02 28 01 01 80 43"}},
        {"1/6.25", {k17 + "02 28 01 06 80 19"}},
        {"1/12.5", {k17 + "02 28 01 0C 80 05"}},
        {"1/320", {k17 + "02 28 01 40 81 00"}},
        {"1/8000", {k17 + "02 28 01 40 9F 00"}},
        {"1/7", {k17 + "02 28 01 00 00 00"}},
        {"%s%n", {k17 + "02 28 01 00 00 00"}},
        {"", {k17 + "02 28 01 00 00 00"}}}},
      {SetAspectRatio,
       "Camera set image aspect ratio ",
       {{"4:3", {k15 + "02 12 00 00"}}, {"16:9", {k15 + "02 12 00 01"}}, {"1:1", nothing}}},
      {SetShotMode,
       "Camera set shot mode ",
       {{"raw", {k14 + "02 16 00"}},
        {"jpg", {k14 + "02 16 01"}},
        {"jpg+raw", {k14 + "02 16 02"}},
        {"JPG+RAW", nothing}}},
      {SetAntiFlicker,
       "Camera set anti-flicker ",
       {{"50", {k14 + "02 46 01"}},
        {"60", {k14 + "02 46 02"}},
        {"auto", {k14 + "02 46 00"}},
        {"50 Hz", {k14 + "02 46 00"}},
        {"", {k14 + "02 46 00"}}}},
      {SetVideoStandard,
       "Camera set video standard ",
       {{"PAL", {k14 + "02 66 00"}}, {"NTSC", {k14 + "02 66 01"}}, {"pal", nothing}}},
      {SetWifiMode,
       "Set Osmo Wi-Fi mode to ",
       {{"5.8", {kWifi14 + "07 10 01", kWifi13 + "07 15"}},
        {"2.4", {kWifi14 + "07 10 00", kWifi13 + "07 15"}},
        {"5.80", {kWifi14 + "07 10 00", kWifi13 + "07 15"}}}},
  };
  for (const Row& row : rows) {
    for (const auto& [word, frames] : row.words) {
      row.set(word);
      EXPECT_EQ(SentFrames(), frames) << row.log << word;
      EXPECT_EQ(Log(), row.log + word + "\n");
    }
  }
}

TEST_F(CameraCommands, SomeSettingsLogNothingOrOnlyWhatTheyUnderstand) {
  struct Row {
    void (*set)(const char*);
    const char* word;
    std::string log;
    Frames frames;
  };
  const std::vector<Row> rows = {
      {SetCameraMode, "photo", "Camera set mode photo\n", {kMode + "02 10 00"}},
      {SetCameraMode, "video", "Camera set mode video\n", {kMode + "02 10 01"}},
      {SetCameraMode, "Video", "", {}},
      {SetPower, "sleep", "", {kPower + "09 51 01"}},
      {SetPower, "wakeup", "", {kPower + "09 51 02"}},
      {SetPower, "restart", "", {kPower + "09 51 03"}},
      {SetPower, "shutdown", "", {kPower + "09 51 04"}},
      {SetPower, "off", "", {}},
      {SetPower, "", "", {}},
      {SetHistogram, "1", "", {k14 + "02 60 01"}},
      {SetHistogram, "0", "", {k14 + "02 60 00"}},
      {SetHistogram, "on", "", {}},
      {FormatSdCard, "sd", "Format microSD card\n", {k13 + "02 72"}},
      {FormatSdCard, "SD", "", {}},
      {FormatSdCard, "", "", {}},
  };
  for (const Row& row : rows) {
    row.set(row.word);
    EXPECT_EQ(SentFrames(), row.frames) << row.word;
    EXPECT_EQ(Log(), row.log) << row.word;
  }
}

TEST_F(CameraCommands, IsoTakesTheLeadingDigitsAndSendsAutomaticForTheRest) {
  struct Row {
    const char* text;
    std::string logged;
    std::string code;
  };
  for (const Row& row : std::vector<Row>{{"100", "100", "03"},
                                         {"200", "200", "04"},
                                         {"400", "400", "05"},
                                         {"800", "800", "06"},
                                         {"1600", "1600", "07"},
                                         {"3200", "3200", "08"},
                                         {"6400", "6400", "09"},
                                         {"400abc", "400", "05"},
                                         {" +400", "400", "05"},
                                         {"0", "0", "00"},
                                         {"auto", "0", "00"},
                                         {"", "0", "00"},
                                         {"12800", "12800", "00"},
                                         {"-100", "-100", "00"},
                                         {"4294967396", "2147483647", "00"},  // 2^32 + 100
                                         {"99999999999999999999", "2147483647", "00"},
                                         {"-99999999999999999999", "-2147483648", "00"}}) {
    SetIso(row.text);
    EXPECT_EQ(SentFrames(), Frames{k14 + "02 2A " + row.code}) << row.text;
    EXPECT_EQ(Log(), "Camera set iso " + row.logged + "\n");
  }
}

TEST_F(CameraCommands, EvMustBeOneOfTheCamerasSteps) {
  struct Row {
    const char* text;
    std::string logged;  // how it begins
    std::string code;    // empty: nothing sent
  };
  for (const Row& row : std::vector<Row>{
           {"-3.0", "-3.0", "07"}, {"-2.7", "-2.7", "08"}, {"-2.3", "-2.3", "09"},
           {"-2.0", "-2.0", "0A"}, {"-1.7", "-1.7", "0B"}, {"-1.3", "-1.3", "0C"},
           {"-1.0", "-1.0", "0D"}, {"-0.7", "-0.7", "0E"}, {"-0.3", "-0.3", "0F"},
           {"0", "0.0", "10"},     {"+0.3", "0.3", "11"},  {"+0.7", "0.7", "12"},
           {"+1.0", "1.0", "13"},  {"+1.3", "1.3", "14"},  {"+1.7", "1.7", "15"},
           {"+2.0", "2.0", "16"},  {"+2.3", "2.3", "17"},  {"+2.7", "2.7", "18"},
           {"+3.0", "3.0", "19"},  {"0.30", "0.3", "11"},  {"3", "3.0", "19"},
           {"-0.0", "-0.0", "10"}, {"auto", "0.0", "10"},  {"", "0.0", "10"},
           {"0.33", "0.3", ""},    {"0.5", "0.5", ""},     {"3.3", "3.3", ""},
           {"1e300", "1", ""},     {"nan", "nan", ""},     {"inf", "inf", ""},
           {"-inf", "-inf", ""},
       }) {
    SetEv(row.text);
    EXPECT_EQ(SentFrames(), row.code.empty() ? Frames{} : Frames{k14 + "02 2E " + row.code})
        << row.text;
    EXPECT_TRUE(Log().starts_with("Camera set EV " + row.logged)) << row.text;
  }
}

TEST_F(CameraCommands, PresetWhiteBalanceIgnoresTheTemperature) {
  struct Row {
    const char* mode;
    Frames frames;
  };
  for (const Row& row : std::vector<Row>{{"auto", {k15 + "02 2C 00 44"}},
                                         {"sunny", {k15 + "02 2C 01 30"}},
                                         {"cloudy", {k15 + "02 2C 02 40"}},
                                         {"incandescent", {k15 + "02 2C 04 44"}},
                                         {"neon", {k15 + "02 2C 05 19"}},
                                         {"AUTO", {}},
                                         {"", {}}}) {
    for (const char* temperature : {static_cast<const char*>(nullptr), "5600"}) {
      SetWhiteBalance(row.mode, temperature);
      EXPECT_EQ(SentFrames(), row.frames) << row.mode;
      EXPECT_EQ(Log(), std::string("Camera set WB ") + row.mode + "\n");
    }
  }
  EXPECT_EQ(SnapshotCameraState().wb_temp_set, 0);
}

TEST_F(CameraCommands, CustomWhiteBalanceRemembersTheTemperatureThatItWasGiven) {
  struct Row {
    const char* temperature;
    float remembered;
    std::string byte;  // empty: nothing sent
  };
  for (const Row& row : std::vector<Row>{{"1800", 1800, ""},
                                         {"1900", 1900, ""},
                                         {"1901", 1901, "14"},
                                         {"2099", 2099, "14"},
                                         {"2100", 2100, "15"},
                                         {"5600", 5600, "38"},
                                         {"5600\n", 5600, "38"},
                                         {"6500K", 6500, "41"},
                                         {"10000", 10000, "64"},
                                         {"25599", 25599, "FF"},
                                         {"25600", 25600, "00"},
                                         {"warm", 0, ""},
                                         {"", 0, ""},
                                         {"-5600", -5600, ""},
                                         {"1e18", 1, ""},
                                         {"1000000000000000000", 2147483648.0F, "14"},
                                         {"-99999999999999999999", -2147483648.0F, ""}}) {
    SetWhiteBalance("custom", row.temperature);
    EXPECT_EQ(SentFrames(), row.byte.empty() ? Frames{} : Frames{k15 + "02 2C 06 " + row.byte})
        << row.temperature;
    EXPECT_EQ(Log(), std::string("Camera set WB custom\nCamera set WB temperature ") +
                         row.temperature + "\n");
    EXPECT_EQ(SnapshotCameraState().wb_temp_set, row.remembered) << row.temperature;
  }
  SetWhiteBalance("custom", "3000");
  SentFrames();
  Log();
  SetWhiteBalance("custom", nullptr);
  EXPECT_EQ(Log(), "Camera set WB custom\n");
  EXPECT_EQ(SnapshotCameraState().wb_temp_set, 3000);
}

TEST_F(CameraCommands, VideoResolutionSendsItsTwoFramesWhateverTheNumbers) {
  struct Row {
    int width;
    int height;
    int rate;
    std::string codes;
  };
  for (const Row& row : std::vector<Row>{{1920, 1080, 60, "0A 06"},
                                         {4096, 2160, 25, "16 02"},
                                         {1280, 720, 200, "04 13"},
                                         {1920, 1080, 15, "0A 00"},
                                         {1080, 1920, 30, "00 03"},
                                         {-2147483647 - 1, 2147483647, -1, "00 00"}}) {
    SetVideoResolution(row.width, row.height, row.rate);
    EXPECT_EQ(SentFrames(),
              (Frames{k18 + "02 18 " + row.codes + " 00 00 00", k15 + "02 AF " + row.codes}));
    EXPECT_EQ(Log(), "Camera set video resolution " + std::to_string(row.width) + "x" +
                         std::to_string(row.height) + "@" + std::to_string(row.rate) + "\n");
  }
}

}  // namespace
}  // namespace kestrelbridge
