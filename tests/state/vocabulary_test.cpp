// What telemetry calls each code and number of the camera. The way back, from words to codes, is
// tested with the commands (tests/control), where the codes leave.
#include "state/vocabulary.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <span>
#include <string>

#include "state/camera_state.h"
#include "state/format.h"
#include "state/pushes.h"
#include "state/status_decoding.h"

namespace kestrelbridge {
namespace {

// One setting as the wire and the text record show it.
struct Reported {
  const char* key;
  std::size_t push;
  std::size_t offset;
  const char* words;  // "code=word,..."
  const char* fallback;
};

const Reported kReported[] = {
    {"camera_model", test::kStatus, 33, "24=DJI Pocket Osmo,33=DJI Osmo Action", "Unknown camera"},
    {"camera_mode", test::kStatus, 4, "1=video", "photo"},
    {"image_mode", test::kSettings, 20, "1=auto,2=shutter,3=aperture,4=manual", "auto"},
    {"resolution", test::kSettings, 13,
     "4=1280x720,10=1920x1080,16=3840x2160,22=4096x2160,24=2704x1520,31=2720x1530,48=4000x3000,"
     "52=2720x2040",
     ""},
    {"framerate", test::kSettings, 14, "1=24,2=25,3=30,4=48,5=50,6=60,7=120,8=240,10=100,19=200",
     ""},
    {"shot_mode", test::kSettings, 12, "0=RAW,1=JPG,2=JPG+RAW", ""},
    {"wb", test::kSettings, 23, "0=auto,1=sunny,2=cloudy,4=incandescent,5=neon", "custom"},
    {"color_mode", test::kSettings, 31,
     "1=art,4=black white,5=vivid,6=d-cinelike,7=portrait,14=beach,16=dream,18=classic,"
     "19=nostalgia,23=d-log,52=d-clike",
     "none"},
    {"iso_set", test::kSettings, 5, "3=100,4=200,5=400,6=800,7=1600,8=3200,9=6400", "auto"},
    {"ev", test::kSettings, 6,
     "7=-3.0,8=-2.7,9=-2.3,10=-2.0,11=-1.7,12=-1.3,13=-1.0,14=-0.7,15=-0.3,17=+0.3,18=+0.7,"
     "19=+1.0,20=+1.3,21=+1.7,22=+2.0,23=+2.3,24=+2.7,25=+3.0",
     "0"},
    {"ratio", test::kSettings, 10, "1=16:9", "4:3"},
    {"antiflicker", test::kSettings, 32, "1=50 Hz,2=60 Hz", "auto"},
};

// The text record's word for a code in the push that carries the setting.
std::string WordShown(const char* key, std::size_t length, std::size_t offset, int code) {
  ClearCameraState();
  DecodeStatusFrame(test::PushWith(length, {{offset, {static_cast<std::uint8_t>(code)}}}));
  return test::Item(test::TelemetryText(), key);
}

TEST(Vocabulary, EveryCodeOfThe256ShowsItsWordInTheTelemetryText) {
  for (int code = 0; code < 256; ++code) {
    for (const Reported& setting : kReported) {
      const std::string known = test::Item(setting.words, std::to_string(code));
      EXPECT_EQ(WordShown(setting.key, setting.push, setting.offset, code),
                known == "(absent)" ? setting.fallback : known)
          << setting.key << " code " << code;
    }
    EXPECT_EQ(WordShown("video_std", test::kSettings, 55, code), code % 2 == 0 ? "PAL" : "NTSC");
  }
}

TEST(Vocabulary, ExposureCompensationIsAlsoANumber) {
  for (int code = 0; code < 256; ++code) {
    const auto ev = static_cast<std::uint8_t>(code);
    EXPECT_EQ(EvOfCode(ev), std::atof(ReportedWord(kEv, ev).data())) << code;
  }
}

TEST(Vocabulary, EachOfThe57ShutterWordsIsReadBackFromItsThreeBytes) {
  for (const std::string_view word : kShutterWords) {
    char text[10] = "";
    FormatShutter(EncodeShutter(word), text);
    EXPECT_EQ(text, word);
  }
}

struct Row {
  std::uint32_t value;
  const char* text;
};

// Each value in a field that held another text, as long as the one in the camera's record.
void Check(void (*format)(std::uint32_t, std::span<char>), std::size_t size,
           std::span<const Row> rows) {
  for (const Row& row : rows) {
    char field[20] = "before";
    format(row.value, std::span(field).first(size));
    EXPECT_STREQ(field, row.text) << row.value;
  }
}

TEST(Format, DurationsAreHoursMinutesSeconds) {
  constexpr Row kRows[] = {
      {0, "00:00:00"},        {9, "00:00:09"},        {59, "00:00:59"},
      {60, "00:01:00"},       {3599, "00:59:59"},     {3725, "01:02:05"},
      {36'000, "10:00:00"},   {65'535, "18:12:15"},   {359'999, "99:59:59"},
      {360'000, "100:00:00"}, {363'725, "101:02:05"}, {UINT32_MAX, "1193046:28:15"}};
  Check(FormatDuration, 20, kRows);
}

TEST(Format, ShutterValuesAreWords) {
  constexpr Row kRows[] = {{0x00001E, "30\""},
                           {0x000000, "0\""},
                           {0x0000FF, "255\""},
                           {0x020003, "3.2\""},
                           {0xFF00FF, "255.255\""},
                           {0x009F40, "1/8000"},
                           {0x008001, "1/1"},
                           {0x198001, "1/1.25"},
                           {0x05800C, "1/12.5"},
                           {0x00FFFF, "1/32767"},
                           {0x058000, "1/0.5"},
                           {0xFFFFFF, "1/32767.2"},  // longer than the field: cut
                           // Neither seconds nor a fraction: the text stays.
                           {0x000105, "before"},
                           {0x007FFF, "before"},
                           {0xFF0100, "before"}};
  Check(FormatShutter, 10, kRows);
}

TEST(Format, FreeSpaceIsInGigabytesAndEmptyWithoutAny) {
  constexpr Row kRows[] = {{0, ""},           {1, "0.0G"},          {60, "0.1G"},
                           {59'640, "59.6G"}, {999'999, "1000.0G"}, {UINT32_MAX, "4294967.5G"}};
  Check(FormatFreeSpace, 20, kRows);
}

TEST(Format, AperturesHaveADecimalOnlyWhenTheyNeedIt) {
  constexpr Row kRows[] = {{0, "0"},     {1, "0.0"},      {200, "2"},
                           {280, "2.8"}, {281, "2.8"},    {1100, "11"},
                           {560, "5.6"}, {65'500, "655"}, {65'530, "655.3"}};
  Check([](std::uint32_t value,
           std::span<char> field) { FormatAperture(static_cast<std::uint16_t>(value), field); },
        10, kRows);
}

TEST(Format, AWordIsCutToItsFieldAndLeavesNothingOfTheOneBefore) {
  std::string field(6, 'x');
  SetText(field, "black white");
  EXPECT_STREQ(field.data(), "black");
  SetText(field, "art");
  EXPECT_EQ(field, std::string("art\0\0\0", 6));
}

}  // namespace
}  // namespace kestrelbridge
