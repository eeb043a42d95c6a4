// What telemetry calls each code and number of the camera. The way back, from words to codes, is
// tested with the commands (tests/control), where the codes leave.
#include "state/vocabulary.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <string>

#include "state/format.h"
#include "state/status_decoding.h"
#include "support/pushes.h"

namespace kestrelbridge::test {
namespace {

// One setting as the wire and the text record show it.
struct Reported {
  const char* key;
  std::size_t push;
  std::size_t offset;
  std::map<int, std::string> words;
  const char* fallback;
};

// clang-format off
const Reported kReported[] = {
    {"camera_model", test::kStatus, 33,
     {{24, "DJI Pocket Osmo"}, {33, "DJI Osmo Action"}},
     "Unknown camera"},
    {"camera_mode", test::kStatus, 4,
     {{1, "video"}},
     "photo"},
    {"image_mode", test::kSettings, 20,
     {{1, "auto"}, {2, "shutter"}, {3, "aperture"}, {4, "manual"}},
     "auto"},
    {"resolution", test::kSettings, 13,
     {{4, "1280x720"}, {10, "1920x1080"}, {16, "3840x2160"}, {22, "4096x2160"}, {24, "2704x1520"},
      {31, "2720x1530"}, {48, "4000x3000"}, {52, "2720x2040"}},
     ""},
    {"framerate", test::kSettings, 14,
     {{1, "24"}, {2, "25"}, {3, "30"}, {4, "48"}, {5, "50"}, {6, "60"}, {7, "120"}, {8, "240"},
      {10, "100"}, {19, "200"}},
     ""},
    {"shot_mode", test::kSettings, 12,
     {{0, "RAW"}, {1, "JPG"}, {2, "JPG+RAW"}},
     ""},
    {"wb", test::kSettings, 23,
     {{0, "auto"}, {1, "sunny"}, {2, "cloudy"}, {4, "incandescent"}, {5, "neon"}},
     "custom"},
    {"color_mode", test::kSettings, 31,
     {{1, "art"}, {4, "black white"}, {5, "vivid"}, {6, "d-cinelike"}, {7, "portrait"},
      {14, "beach"}, {16, "dream"}, {18, "classic"}, {19, "nostalgia"}, {23, "d-log"},
      {52, "d-clike"}},
     "none"},
    {"iso_set", test::kSettings, 5,
     {{3, "100"}, {4, "200"}, {5, "400"}, {6, "800"}, {7, "1600"}, {8, "3200"}, {9, "6400"}},
     "auto"},
    {"ev", test::kSettings, 6,
     {{7, "-3.0"}, {8, "-2.7"}, {9, "-2.3"}, {10, "-2.0"}, {11, "-1.7"}, {12, "-1.3"},
      {13, "-1.0"}, {14, "-0.7"}, {15, "-0.3"}, {17, "+0.3"}, {18, "+0.7"}, {19, "+1.0"},
      {20, "+1.3"}, {21, "+1.7"}, {22, "+2.0"}, {23, "+2.3"}, {24, "+2.7"}, {25, "+3.0"}},
     "0"},
    {"ratio", test::kSettings, 10,
     {{1, "16:9"}},
     "4:3"},
    {"antiflicker", test::kSettings, 32,
     {{1, "50 Hz"}, {2, "60 Hz"}},
     "auto"},
};
// clang-format on

// The text record's word for a code in the push that carries the setting. Nothing may be left of
// the word before.
std::string WordShown(const char* key, std::size_t length, std::size_t offset, int code) {
  DecodeStatusFrame(test::PushWith(length, {{offset, {static_cast<std::uint8_t>(code)}}}));
  return test::Item(test::TelemetryText(), key);
}

TEST(Vocabulary, EveryCodeOfThe256ShowsItsWordInTheTelemetryText) {
  for (int code = 0; code < 256; ++code) {
    for (const Reported& setting : kReported) {
      const auto known = setting.words.find(code);
      EXPECT_EQ(WordShown(setting.key, setting.push, setting.offset, code),
                known == setting.words.end() ? setting.fallback : known->second)
          << setting.key << " code " << code;
    }
    EXPECT_EQ(WordShown("video_std", test::kSettings, 55, code), code % 2 == 0 ? "PAL" : "NTSC");
  }
}

TEST(Vocabulary, EachOfThe57ShutterWordsIsReadBackFromItsThreeBytes) {
  for (const std::string_view word : kShutterWords) {
    char text[10] = "";
    FormatShutter(EncodeShutter(word), text);
    EXPECT_EQ(text, word);
  }
}

}  // namespace
}  // namespace kestrelbridge::test
