// Every camera operation with every kind of argument: the exact frames, the exact log lines.

#include "control/camera_commands.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "state/camera_state.h"
#include "support/camera_end.h"

namespace kestrelbridge::test {
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

struct Word {
  std::string word;
  std::string rest = {};         // of the frame; empty: nothing is sent
  const char* logged = nullptr;  // where it is not the word itself
};

struct Row {
  void (*set)(const char* word);
  std::string log;    // and the word; empty: nothing is logged
  std::string frame;  // up to what the word decides
  std::vector<Word> words;
};

// Several pairs a line; one each would be three hundred lines.
// clang-format off
const Row kRows[] = {
    {[](const char*) { SetRecording(true); }, "Record start", k14 + "02 02 ",
     {{"", "01"}}},
    {[](const char*) { SetRecording(false); }, "Record stop", k14 + "02 02 ",
     {{"", "00"}}},
    {[](const char*) { TakeShot(); }, "Camera shot", k14 + "02 01 ",
     {{"", "01"}}},
    {[](const char*) { ResetCamera(); }, "", k14 + "02 78 ",
     {{"", "00"}}},
    {SetCameraMode, "Camera set mode ", kMode + "02 10 ",
     {{"photo", "00"}, {"video", "01"}}},
    {SetCameraMode, "", "",
     {{"Video"}, {""}}},
    {FormatSdCard, "Format microSD card", k13 + "02 ",
     {{"sd", "72", ""}}},
    {FormatSdCard, "", "",
     {{"SD"}, {""}}},
    {SetPower, "", kPower + "09 51 ",
     {{"sleep", "01"}, {"wakeup", "02"}, {"restart", "03"}, {"shutdown", "04"}, {"off"}, {""}}},
    {SetHistogram, "", k14 + "02 60 ",
     {{"1", "01"}, {"0", "00"}, {"on"}, {""}}},
    {SetVideoMode, "Camera set video mode ", k15 + "02 1E ",
     {{"auto", "01 00"}, {"shutter", "02 00"}, {"aperture", "03 00"}, {"manual", "04 00"},
      {"Auto"}, {" auto"}, {""}}},
    {SetColor, "Set color ", k14 + "02 42 ",
     {{"none", "00"}, {"art", "01"}, {"black white", "04"}, {"vivid", "05"}, {"d-cinelike", "06"},
      {"portrait", "07"}, {"beach", "0E"}, {"dream", "10"}, {"classic", "12"},
      {"nostalgia", "13"}, {"d-log", "17"}, {"d-clike", "34"}, {"Vivid", "00"}, {"", "00"}}},
    {SetAspectRatio, "Camera set image aspect ratio ", k15 + "02 12 ",
     {{"4:3", "00 00"}, {"16:9", "00 01"}, {"1:1"}, {""}}},
    {SetShotMode, "Camera set shot mode ", k14 + "02 16 ",
     {{"raw", "00"}, {"jpg", "01"}, {"jpg+raw", "02"}, {"JPG+RAW"}, {""}}},
    {SetAntiFlicker, "Camera set anti-flicker ", k14 + "02 46 ",
     {{"50", "01"}, {"60", "02"}, {"auto", "00"}, {"50 Hz", "00"}, {"", "00"}}},
    {SetVideoStandard, "Camera set video standard ", k14 + "02 66 ",
     {{"PAL", "00"}, {"NTSC", "01"}, {"pal"}, {""}}},
    // Leading digits count; what the camera does not have is sent as automatic.
    {SetIso, "Camera set iso ", k14 + "02 2A ",
     {{"100", "03"}, {"200", "04"}, {"400", "05"}, {"800", "06"}, {"1600", "07"}, {"3200", "08"},
      {"6400", "09"}, {"400abc", "05", "400"}, {" +400", "05", "400"}, {"0", "00"},
      {"auto", "00", "0"}, {"", "00", "0"}, {"12800", "00"}, {"-100", "00"},
      {"4294967396", "00", "2147483647"}, {"99999999999999999999", "00", "2147483647"},
      {"-99999999999999999999", "00", "-2147483648"}}},
    // Only what is exactly one of the steps is sent.
    {SetEv, "Camera set EV ", k14 + "02 2E ",
     {{"-3.0", "07"}, {"-2.7", "08"}, {"-2.3", "09"}, {"-2.0", "0A"}, {"-1.7", "0B"},
      {"-1.3", "0C"}, {"-1.0", "0D"}, {"-0.7", "0E"}, {"-0.3", "0F"}, {"0", "10", "0.0"},
      {"+0.3", "11", "0.3"}, {"+0.7", "12", "0.7"}, {"+1.0", "13", "1.0"}, {"+1.3", "14", "1.3"},
      {"+1.7", "15", "1.7"}, {"+2.0", "16", "2.0"}, {"+2.3", "17", "2.3"}, {"+2.7", "18", "2.7"},
      {"+3.0", "19", "3.0"}, {"0.30", "11", "0.3"}, {"3", "19", "3.0"}, {"-0.0", "10"},
      {"auto", "10", "0.0"}, {"", "10", "0.0"}, {"0.33", "", "0.3"}, {"0.5"}, {"3.3"}, {"-3.3"},
      {"nan", "10", "0.0"}, {"0.30000000000000004", "", "0.3"}, {"0.300000011920929", "", "0.3"},
      {"1e9", "", "1000000000.0"}, {"-inf", "10", "0.0"}, {"inf", "10", "0.0"},
      {" +Infinity", "10", "0.0"}, {"0x1", "10", "0.0"}, {" -0X1p0", "10", "0.0"},
      {".3", "11", "0.3"}, {"+-1", "10", "0.0"}, {"1.0 EV", "13", "1.0"}, {"30e-1", "19", "3.0"},
      {",3", "10", "0.0"}}},
    {SetShutter, "Camera set shutter ", k17 + "02 28 01 ",
     {{"30\"", "1E 00 00"}, {"25\"", "19 00 00"}, {"20\"", "14 00 00"}, {"15\"", "0F 00 00"},
      {"10\"", "0A 00 00"}, {"9\"", "09 00 00"}, {"8\"", "08 00 00"}, {"7\"", "07 00 00"},
      {"6\"", "06 00 00"}, {"5\"", "05 00 00"}, {"4\"", "04 00 00"}, {"3.2\"", "03 00 02"},
      {"3\"", "03 00 00"}, {"2.5\"", "02 00 05"}, {"2\"", "02 00 00"}, {"1.6\"", "01 00 06"},
      {"1.3\"", "01 00 03"}, {"1\"", "01 00 00"}, {"1/1.25", "01 80 19"}, {"1/1.67", "01 80 43"},
      {"1/2", "02 80 00"}, {"1/2.5", "02 80 05"}, {"1/3", "03 80 00"}, {"1/4", "04 80 00"},
      {"1/5", "05 80 00"}, {"1/6.25", "06 80 19"}, {"1/8", "08 80 00"}, {"1/10", "0A 80 00"},
      {"1/12.5", "0C 80 05"}, {"1/15", "0F 80 00"}, {"1/20", "14 80 00"}, {"1/25", "19 80 00"},
      {"1/30", "1E 80 00"}, {"1/40", "28 80 00"}, {"1/50", "32 80 00"}, {"1/60", "3C 80 00"},
      {"1/80", "50 80 00"}, {"1/100", "64 80 00"}, {"1/120", "78 80 00"}, {"1/160", "A0 80 00"},
      {"1/200", "C8 80 00"}, {"1/240", "F0 80 00"}, {"1/320", "40 81 00"}, {"1/400", "90 81 00"},
      {"1/500", "F4 81 00"}, {"1/640", "80 82 00"}, {"1/800", "20 83 00"}, {"1/1000", "E8 83 00"},
      {"1/1250", "E2 84 00"}, {"1/1600", "40 86 00"}, {"1/2000", "D0 87 00"},
      {"1/2500", "C4 89 00"}, {"1/3200", "80 8C 00"}, {"1/4000", "A0 8F 00"},
      {"1/5000", "88 93 00"}, {"1/6400", "00 99 00"}, {"1/8000", "40 9F 00"}, {"1/7", "00 00 00"},
      {"30", "00 00 00"}, {"\"", "00 00 00"}, {"1/", "00 00 00"}, {"1/16000", "00 00 00"},
      {" 1/8000", "00 00 00"}, {"3.2\" ", "00 00 00"}, {"%s%n", "00 00 00"}, {"", "00 00 00"}}},
    // A preset ignores the temperature.
    {[](const char* mode) { SetWhiteBalance(mode, nullptr); }, "Camera set WB ", k15 + "02 2C ",
     {{"auto", "00 44"}, {"sunny", "01 30"}, {"cloudy", "02 40"}, {"incandescent", "04 44"},
      {"neon", "05 19"}, {"custom"}, {"AUTO"}, {""}}},
    {[](const char* mode) { SetWhiteBalance(mode, "5600"); }, "Camera set WB ", k15 + "02 2C ",
     {{"auto", "00 44"}, {"neon", "05 19"}, {"Custom"}, {""}}},
    {[](const char* kelvin) { SetWhiteBalance("custom", kelvin); },
     "Camera set WB custom\nCamera set WB temperature ", k15 + "02 2C 06 ",
     {{"1800"}, {"1900"}, {"1901", "14"}, {"2099", "14"}, {"2100", "15"}, {"5600", "38"},
      {"5600\n", "38"}, {"6500K", "41"}, {"10000", "64"}, {"25599", "FF"}, {"25600", "00"},
      {"warm"}, {""}, {"-5600"}, {"1e18"}, {"1000000000000000000", "00"}, {"3000000000", "80"},
      {"4294969296", "3C"}, {"99999999999999999999", "FF"},
      {"100000000000000000000000000000000000000000", "00"}, {"0x1900"}, {"00002000", "14"},
      {" +2000", "14"}, {"1999", "14"}, {"-99999999999999999999"}}},
};
// clang-format on

using CameraCommands = CameraEnd;

TEST_F(CameraCommands, SendTheFrameOfTheirWordAndLogTheirLine) {
  for (const Row& row : kRows) {
    for (const auto& [word, rest, logged] : row.words) {
      row.set(word.c_str());
      EXPECT_EQ(SentFrames(), rest.empty() ? Frames{} : Frames{row.frame + rest})
          << row.log << word;
      const std::string text = logged == nullptr ? word : logged;
      EXPECT_EQ(Log(), row.log.empty() ? "" : row.log + text + "\n");
    }
  }
}

TEST_F(CameraCommands, WifiModeSendsTheBandAndARestart) {
  for (const auto& [band, code, unused] :
       std::vector<Word>{{"5.8", "01"}, {"2.4", "00"}, {"5.80", "00"}}) {
    SetWifiMode(band.c_str());
    EXPECT_EQ(SentFrames(), (Frames{kWifi14 + "07 10 " + code, kWifi13 + "07 15"}));
    EXPECT_EQ(Log(), "Set Osmo Wi-Fi mode to " + band + "\n");
  }
}

TEST_F(CameraCommands, VideoResolutionSendsItsTwoFramesWhateverTheNumbers) {
  const struct {
    int width, height, rate;
    const char* log;
    std::string codes;
  } rows[] = {{1920, 1080, 60, "1920x1080@60", "0A 06"},
              {1920, 1080, 15, "1920x1080@15", "0A 00"},
              {1080, 1920, 30, "1080x1920@30", "00 03"},
              {INT32_MIN, INT32_MAX, -1, "-2147483648x2147483647@-1", "00 00"}};
  for (const auto& row : rows) {
    SetVideoResolution(row.width, row.height, row.rate);
    EXPECT_EQ(SentFrames(),
              (Frames{k18 + "02 18 " + row.codes + " 00 00 00", k15 + "02 AF " + row.codes}));
    EXPECT_EQ(Log(), std::string("Camera set video resolution ") + row.log + "\n");
  }
}

TEST_F(CameraCommands, CustomWhiteBalanceRemembersTheTemperatureThatItWasGiven) {
  SetWhiteBalance("sunny", "5600");
  EXPECT_EQ(SnapshotCameraState().wb_temp_set, 0) << "a preset has none";
  for (const auto& [kelvin, remembered, unused] :
       std::vector<Word>{{"1900", "1900"},
                         {"5600\n", "5600"},
                         {"6500K", "6500"},
                         {"warm", "0"},
                         {"-5600", "-5600"},
                         {"1e18", "1"},
                         {"3000000000", "3000000000"},
                         {"16777217", "16777216"},
                         {"1000000000000000000", "1e18"},
                         {"+2000", "2000"},
                         {"-99999999999999999999", "-1e20"},
                         {"1" + std::string(39, '0'), "inf"},
                         {"", "0"},
                         {"3000", "3000"}}) {
    SetWhiteBalance("custom", kelvin.c_str());
    EXPECT_EQ(SnapshotCameraState().wb_temp_set, std::stof(remembered)) << kelvin;
  }
  SetWhiteBalance("custom", nullptr);
  EXPECT_EQ(SnapshotCameraState().wb_temp_set, 3000) << "nothing new";
  SentFrames();
}

}  // namespace
}  // namespace kestrelbridge::test
