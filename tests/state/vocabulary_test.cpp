#include "state/vocabulary.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "state/camera_state.h"
#include "state/format.h"
#include "state/pushes.h"
#include "state/status_decoding.h"

namespace kestrelbridge {
namespace {

using test::Bytes;

// One setting as the wire and the text record show it.
struct Reported {
  const char* key;
  std::size_t push;
  std::size_t offset;
  std::map<int, std::string> words;
  std::string fallback;
};

std::vector<Reported> ReportedSettings() {
  Reported video_standard = {"video_std", test::kSettings, 55, {}, "PAL"};
  for (int odd = 1; odd < 256; odd += 2) {
    video_standard.words[odd] = "NTSC";
  }
  return {
      {"camera_model",
       test::kStatus,
       33,
       {{24, "DJI Pocket Osmo"}, {33, "DJI Osmo Action"}},
       "Unknown camera"},
      {"camera_mode", test::kStatus, 4, {{1, "video"}}, "photo"},
      {"image_mode",
       test::kSettings,
       20,
       {{1, "auto"}, {2, "shutter"}, {3, "aperture"}, {4, "manual"}},
       "auto"},
      {"resolution",
       test::kSettings,
       13,
       {{4, "1280x720"},
        {10, "1920x1080"},
        {16, "3840x2160"},
        {22, "4096x2160"},
        {24, "2704x1520"},
        {31, "2720x1530"},
        {48, "4000x3000"},
        {52, "2720x2040"}},
       ""},
      {"framerate",
       test::kSettings,
       14,
       {{1, "24"},
        {2, "25"},
        {3, "30"},
        {4, "48"},
        {5, "50"},
        {6, "60"},
        {7, "120"},
        {8, "240"},
        {10, "100"},
        {19, "200"}},
       ""},
      {"shot_mode", test::kSettings, 12, {{0, "RAW"}, {1, "JPG"}, {2, "JPG+RAW"}}, ""},
      {"wb",
       test::kSettings,
       23,
       {{0, "auto"}, {1, "sunny"}, {2, "cloudy"}, {4, "incandescent"}, {5, "neon"}},
       "custom"},
      {"color_mode",
       test::kSettings,
       31,
       {{1, "art"},
        {4, "black white"},
        {5, "vivid"},
        {6, "d-cinelike"},
        {7, "portrait"},
        {14, "beach"},
        {16, "dream"},
        {18, "classic"},
        {19, "nostalgia"},
        {23, "d-log"},
        {52, "d-clike"}},
       "none"},
      {"iso_set",
       test::kSettings,
       5,
       {{3, "100"}, {4, "200"}, {5, "400"}, {6, "800"}, {7, "1600"}, {8, "3200"}, {9, "6400"}},
       "auto"},
      {"ev",
       test::kSettings,
       6,
       {{7, "-3.0"},
        {8, "-2.7"},
        {9, "-2.3"},
        {10, "-2.0"},
        {11, "-1.7"},
        {12, "-1.3"},
        {13, "-1.0"},
        {14, "-0.7"},
        {15, "-0.3"},
        {17, "+0.3"},
        {18, "+0.7"},
        {19, "+1.0"},
        {20, "+1.3"},
        {21, "+1.7"},
        {22, "+2.0"},
        {23, "+2.3"},
        {24, "+2.7"},
        {25, "+3.0"}},
       "0"},
      {"ratio", test::kSettings, 10, {{1, "16:9"}}, "4:3"},
      video_standard,
      {"antiflicker", test::kSettings, 32, {{1, "50 Hz"}, {2, "60 Hz"}}, "auto"},
  };
}

TEST(Vocabulary, EveryCodeOfThe256ShowsItsWordInTheTelemetryText) {
  for (const Reported& setting : ReportedSettings()) {
    for (int code = 0; code < 256; ++code) {
      ClearCameraState();
      Bytes push = test::Push(setting.push);
      test::Put(push, setting.offset, {static_cast<std::uint8_t>(code)});
      DecodeStatusFrame(push);
      const auto known = setting.words.find(code);
      EXPECT_EQ(test::Item(test::TelemetryText(), setting.key),
                known == setting.words.end() ? setting.fallback : known->second)
          << setting.key << " code " << code;
    }
  }
}

TEST(Vocabulary, ExposureCompensationIsAlsoANumber) {
  for (int code = 0; code < 256; ++code) {
    const std::string word(ReportedWord(kEv, static_cast<std::uint8_t>(code)));
    EXPECT_EQ(EvOfCode(static_cast<std::uint8_t>(code)), std::strtod(word.c_str(), nullptr))
        << code;
  }
  EXPECT_EQ(EvOfCode(7), -3.0);
  EXPECT_EQ(EvOfCode(25), 3.0);
}

TEST(Vocabulary, ACommandWordHasItsCodeAndOtherWordsTheDefaultOrNone) {
  constexpr std::optional<std::uint8_t> nothing;
  struct Row {
    const Setting& setting;
    std::string_view word;
    std::optional<std::uint8_t> code;
  };
  const Row rows[] = {
      {kCameraModel, "DJI Osmo Action", nothing},
      {kCameraMode, "photo", 0},
      {kCameraMode, "video", 1},
      {kCameraMode, "Video", nothing},
      {kCameraMode, "", nothing},
      {kImageMode, "auto", 1},
      {kImageMode, "shutter", 2},
      {kImageMode, "aperture", 3},
      {kImageMode, "manual", 4},
      {kImageMode, "manual ", nothing},
      {kShotMode, "raw", 0},
      {kShotMode, "jpg", 1},
      {kShotMode, "jpg+raw", 2},
      {kShotMode, "JPG+RAW", nothing},
      {kShotMode, "", nothing},
      {kWhiteBalance, "auto", 0},
      {kWhiteBalance, "sunny", 1},
      {kWhiteBalance, "cloudy", 2},
      {kWhiteBalance, "incandescent", 4},
      {kWhiteBalance, "neon", 5},
      {kWhiteBalance, "custom", 6},
      {kWhiteBalance, "AUTO", nothing},
      {kColorMode, "none", 0},
      {kColorMode, "art", 1},
      {kColorMode, "black white", 4},
      {kColorMode, "vivid", 5},
      {kColorMode, "d-cinelike", 6},
      {kColorMode, "portrait", 7},
      {kColorMode, "beach", 14},
      {kColorMode, "dream", 16},
      {kColorMode, "classic", 18},
      {kColorMode, "nostalgia", 19},
      {kColorMode, "d-log", 23},
      {kColorMode, "d-clike", 0x34},
      {kColorMode, "Vivid", 0},
      {kColorMode, "", 0},
      {kAspectRatio, "4:3", 0},
      {kAspectRatio, "16:9", 1},
      {kAspectRatio, "16:10", nothing},
      {kVideoStandard, "PAL", 0},
      {kVideoStandard, "NTSC", 1},
      {kVideoStandard, "ntsc", nothing},
      {kAntiFlicker, "50", 1},
      {kAntiFlicker, "60", 2},
      {kAntiFlicker, "50 Hz", 0},
      {kAntiFlicker, "auto", 0},
      {kAntiFlicker, "", 0},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(EncodeWord(row.setting, row.word), row.code) << row.word;
  }
}

TEST(Vocabulary, ASettingThatIsCommandedAsANumberHasA0ForWhatTheCameraLacks) {
  struct Size {
    int width;
    int height;
    int code;
  };
  for (const Size& size :
       {Size{1280, 720, 4}, Size{1920, 1080, 10}, Size{3840, 2160, 16}, Size{4096, 2160, 22},
        Size{2704, 1520, 24}, Size{2720, 1530, 31}, Size{4000, 3000, 48}, Size{2720, 2040, 52},
        Size{1920, 720, 0}, Size{720, 1280, 0}, Size{0, 0, 0}, Size{-1280, 720, 0},
        Size{INT32_MIN, INT32_MIN, 0}}) {
    EXPECT_EQ(EncodeResolution(size.width, size.height), size.code) << size.width;
  }
  const std::map<int, int> rates = {{24, 1}, {25, 2},  {30, 3},  {48, 4},   {50, 5},
                                    {60, 6}, {120, 7}, {240, 8}, {100, 10}, {200, 19}};
  const std::map<int, int> isos = {{100, 3},  {200, 4},  {400, 5}, {800, 6},
                                   {1600, 7}, {3200, 8}, {6400, 9}};
  for (int number = -300; number <= 13'000; ++number) {
    EXPECT_EQ(EncodeFramerate(number), rates.contains(number) ? rates.at(number) : 0) << number;
    EXPECT_EQ(EncodeIso(number), isos.contains(number) ? isos.at(number) : 0) << number;
  }
}

TEST(Vocabulary, ExposureCompensationIsEncodedOnlyWhenItIsExactlyAStep) {
  for (std::size_t i = 0; i < kEvSteps.size(); ++i) {
    EXPECT_EQ(EncodeEv(std::strtod(kEvSteps[i].data(), nullptr)), 7 + i) << kEvSteps[i];
  }
  EXPECT_EQ(EncodeEv(std::strtod("0.30", nullptr)), 17);
  EXPECT_EQ(EncodeEv(-0.0), 16);
  for (const double other : {0.33, 0.5, 1.0 / 3, 3.3, -3.3, std::nextafter(0.3, 1.0), double{0.3F},
                             HUGE_VAL, std::nan("")}) {
    EXPECT_EQ(EncodeEv(other), std::nullopt) << other;
  }
}

TEST(Vocabulary, EachOfThe57ShutterWordsIsReadBackFromItsThreeBytes) {
  for (const std::string_view word : kShutterWords) {
    char text[10] = "";
    FormatShutter(EncodeShutter(word), text);
    EXPECT_EQ(text, word);
  }
}

TEST(Vocabulary, ShutterWordsHaveTheCamerasBytesAndOtherTextsZero) {
  const std::map<std::string, std::uint32_t> rows = {{"30\"", 0x00001E},
                                                     {"3.2\"", 0x020003},
                                                     {"2.5\"", 0x050002},
                                                     {"1.6\"", 0x060001},
                                                     {"1\"", 0x000001},
                                                     {"1/1.25", 0x198001},
                                                     {"1/1.67", 0x438001},
                                                     {"1/2.5", 0x058002},
                                                     {"1/6.25", 0x198006},
                                                     {"1/12.5", 0x05800C},
                                                     {"1/320", 0x008140},
                                                     {"1/8000", 0x009F40},
                                                     {"1/7", 0},
                                                     {"30", 0},
                                                     {"", 0},
                                                     {"\"", 0},
                                                     {"1/", 0},
                                                     {"1/16000", 0},
                                                     {" 1/8000", 0},
                                                     {"3.2\" ", 0}};
  for (const auto& [word, value] : rows) {
    EXPECT_EQ(EncodeShutter(word), value) << word;
  }
}

TEST(Vocabulary, StepsRunInOrderAndOnlyOverWordsThatCanBeCommanded) {
  EXPECT_EQ(kShutterSteps.size(), 51U);
  EXPECT_EQ(kShutterSteps.front(), "8\"");
  EXPECT_EQ(kShutterSteps[1], "7\"");
  EXPECT_EQ(kShutterSteps.back(), "1/8000");
  EXPECT_EQ(kEvSteps.size(), 19U);
  EXPECT_EQ(kEvSteps.front(), "-3.0");
  EXPECT_EQ(kEvSteps[9], "0");
  EXPECT_EQ(kEvSteps[10], "+0.3");
  EXPECT_EQ(kEvSteps.back(), "+3.0");
  ASSERT_EQ(kIsoSteps.size(), 7U);
  for (std::size_t i = 0; i < kIsoSteps.size(); ++i) {
    EXPECT_EQ(EncodeIso(std::atoi(kIsoSteps[i].data())), i == 0 ? 0 : i + 2);
  }
  const auto codes = [](const Setting& setting, Steps steps) {
    std::vector<int> result;
    for (const std::string_view word : steps) {
      result.push_back(EncodeWord(setting, word).value_or(0xFF));
    }
    return result;
  };
  EXPECT_EQ(codes(kImageMode, kImageModeSteps), (std::vector{1, 4}));
  EXPECT_EQ(codes(kWhiteBalance, kWhiteBalanceSteps), (std::vector{0, 6}));
  EXPECT_EQ(codes(kColorMode, kColorModeSteps), (std::vector{0, 52}));
}

TEST(Vocabulary, WhoPlaysTheCameraFindsTheCodeOfEveryReportedWord) {
  for (const Setting* setting :
       {&kCameraModel, &kCameraMode, &kImageMode, &kResolution, &kFramerate, &kShotMode,
        &kWhiteBalance, &kColorMode, &kIso, &kEv, &kAspectRatio, &kVideoStandard, &kAntiFlicker}) {
    for (const SettingWord& word : setting->words) {
      EXPECT_EQ(CodeOfReportedWord(*setting, word.reported), word.code) << word.reported;
    }
    EXPECT_EQ(CodeOfReportedWord(*setting, "no such word"), std::nullopt);
  }
}

}  // namespace
}  // namespace kestrelbridge
