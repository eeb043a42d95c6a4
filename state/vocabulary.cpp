#include "state/vocabulary.h"

#include <algorithm>
#include <array>
#include <iterator>

#include "state/spelled_numbers.h"

namespace kestrelbridge {
namespace {

// How a row reads: Both (the word serves both directions), Reported (no command word, or commands
// give a number), or three columns where the two words differ.
constexpr SettingWord Both(std::uint8_t code, std::string_view word) { return {code, word, word}; }
constexpr SettingWord Reported(std::uint8_t code, std::string_view word) {
  return {code, word, {}};
}

constexpr std::array kCameraModelWords = {
    Reported(24, "DJI Pocket Osmo"),
    Reported(33, "DJI Osmo Action"),
};

constexpr std::array kCameraModeWords = {
    Both(0, "photo"),
    Both(1, "video"),
};

constexpr std::array kImageModeWords = {
    Both(1, "auto"),
    Both(2, "shutter"),
    Both(3, "aperture"),
    Both(4, "manual"),
};

// The word spells width and height.
constexpr std::array kResolutionWords = {
    Reported(4, "1280x720"),   Reported(10, "1920x1080"), Reported(16, "3840x2160"),
    Reported(22, "4096x2160"), Reported(24, "2704x1520"), Reported(31, "2720x1530"),
    Reported(48, "4000x3000"), Reported(52, "2720x2040"),
};

// The word spells the frames per second.
constexpr std::array kFramerateWords = {
    Reported(1, "24"),   Reported(2, "25"),   Reported(3, "30"),  Reported(4, "48"),
    Reported(5, "50"),   Reported(6, "60"),   Reported(7, "120"), Reported(8, "240"),
    Reported(10, "100"), Reported(19, "200"),
};

constexpr std::array kShotModeWords = {
    SettingWord{0, "RAW", "raw"},
    SettingWord{1, "JPG", "jpg"},
    SettingWord{2, "JPG+RAW", "jpg+raw"},
};

// The camera reports custom as 3 as well (the fallback word), but takes 6 only.
constexpr std::array kWhiteBalanceWords = {
    Both(0, "auto"),         Both(1, "sunny"), Both(2, "cloudy"),
    Both(4, "incandescent"), Both(5, "neon"),  Both(6, "custom"),
};

constexpr std::array kColorModeWords = {
    Both(0, "none"),       Both(1, "art"),        Both(4, "black white"), Both(5, "vivid"),
    Both(6, "d-cinelike"), Both(7, "portrait"),   Both(14, "beach"),      Both(16, "dream"),
    Both(18, "classic"),   Both(19, "nostalgia"), Both(23, "d-log"),      Both(52, "d-clike"),
};

// The word spells the number, but for the automatic one, which is commanded as 0.
constexpr std::array kIsoWords = {
    Reported(0, "auto"), Reported(3, "100"),  Reported(4, "200"),  Reported(5, "400"),
    Reported(6, "800"),  Reported(7, "1600"), Reported(8, "3200"), Reported(9, "6400"),
};

constexpr std::array kAspectRatioWords = {
    Both(0, "4:3"),
    Both(1, "16:9"),
};

constexpr std::array kVideoStandardWords = {
    Both(0, "PAL"),
    Both(1, "NTSC"),
};

constexpr std::array kAntiFlickerWords = {
    SettingWord{0, "auto", ""},  // commanded by any word but the two
    SettingWord{1, "50 Hz", "50"},
    SettingWord{2, "60 Hz", "60"},
};

// Exposure compensation in steps of a third: code 7 is -3 EV, code 16 is 0, code 25 is +3. The
// values are compared exactly with what a command's text parses to, hence written as the texts
// are.
constexpr std::uint8_t kFirstEvCode = 7;
constexpr std::uint8_t kZeroEvCode = 16;
constexpr std::array kEvValues = {-3.0, -2.7, -2.3, -2.0, -1.7, -1.3, -1.0, -0.7, -0.3, 0.0,
                                  0.3,  0.7,  1.0,  1.3,  1.7,  2.0,  2.3,  2.7,  3.0};
constexpr auto kEvWords = [] {
  std::array<SettingWord, kEvStepWords.size()> words{};
  for (std::size_t i = 0; i < words.size(); ++i) {
    words[i] = Reported(static_cast<std::uint8_t>(kFirstEvCode + i), kEvStepWords[i]);
  }
  return words;
}();
static_assert(kEvValues.size() == kEvWords.size());
static_assert(kEvValues[kZeroEvCode - kFirstEvCode] == 0.0 &&
              kEvStepWords[kZeroEvCode - kFirstEvCode] == "0");

// Ascending codes, so no code twice, and no word twice in either direction.
constexpr bool IsSound(std::span<const SettingWord> words) {
  for (std::size_t i = 1; i < words.size(); ++i) {
    if (words[i].code <= words[i - 1].code) {
      return false;
    }
    for (const SettingWord& earlier : words.first(i)) {
      if (words[i].reported == earlier.reported ||
          (!words[i].commanded.empty() && words[i].commanded == earlier.commanded)) {
        return false;
      }
    }
  }
  return true;
}
static_assert(kCameraModelWords.size() == 2 && IsSound(kCameraModelWords));
static_assert(kCameraModeWords.size() == 2 && IsSound(kCameraModeWords));
static_assert(kImageModeWords.size() == 4 && IsSound(kImageModeWords));
static_assert(kResolutionWords.size() == 8 && IsSound(kResolutionWords));
static_assert(kFramerateWords.size() == 10 && IsSound(kFramerateWords));
static_assert(kShotModeWords.size() == 3 && IsSound(kShotModeWords));
static_assert(kWhiteBalanceWords.size() == 6 && IsSound(kWhiteBalanceWords));
static_assert(kColorModeWords.size() == 12 && IsSound(kColorModeWords));
static_assert(kIsoWords.size() == 8 && IsSound(kIsoWords));
static_assert(kEvWords.size() == 19 && IsSound(kEvWords));
static_assert(kAspectRatioWords.size() == 2 && IsSound(kAspectRatioWords));
static_assert(kVideoStandardWords.size() == 2 && IsSound(kVideoStandardWords));
static_assert(kAntiFlickerWords.size() == 3 && IsSound(kAntiFlickerWords));

constexpr std::uint32_t DigitsOf(std::string_view text) {
  std::uint32_t number = 0;
  for (const char digit : text) {
    number = number * 10 + static_cast<std::uint32_t>(digit - '0');
  }
  return number;
}

// The inverse of FormatShutter for a well-formed word.
constexpr std::uint32_t ShutterValue(std::string_view word) {
  std::uint32_t fraction_flag = 0;
  if (word.starts_with("1/")) {
    word.remove_prefix(2);
    fraction_flag = 0x8000;
  } else {
    word.remove_suffix(1);  // the double quote
  }
  const std::size_t point = word.find('.');
  const std::uint32_t decimals =
      point == std::string_view::npos ? 0 : DigitsOf(word.substr(point + 1));
  return decimals << 16 | fraction_flag | DigitsOf(word.substr(0, point));
}
static_assert(ShutterValue("30\"") == 0x00001E && ShutterValue("3.2\"") == 0x020003);
static_assert(ShutterValue("1/8000") == 0x009F40 && ShutterValue("1/1.25") == 0x198001);

constexpr auto kShutterValues = [] {
  std::array<std::uint32_t, kShutterWords.size()> values{};
  std::ranges::transform(kShutterWords, values.begin(), ShutterValue);
  return values;
}();

// A code for the numbers that its word spells; a word without digits spells 0.
struct NumberedCode {
  SpelledNumbers numbers;
  std::uint8_t code;
};

template <std::size_t kCount>
constexpr std::array<NumberedCode, kCount> NumberedCodes(
    const std::array<SettingWord, kCount>& words) {
  std::array<NumberedCode, kCount> rows{};
  std::ranges::transform(words, rows.begin(), [](const SettingWord& word) {
    return NumberedCode{NumbersOf(word.reported), word.code};
  });
  return rows;
}

constexpr auto kResolutionCodes = NumberedCodes(kResolutionWords);
constexpr auto kFramerateCodes = NumberedCodes(kFramerateWords);
constexpr auto kIsoCodes = NumberedCodes(kIsoWords);

std::uint8_t CodeOr0(std::span<const NumberedCode> codes, const SpelledNumbers& numbers) {
  const auto row = std::ranges::find(codes, numbers, &NumberedCode::numbers);
  return row == codes.end() ? std::uint8_t{0} : row->code;
}

}  // namespace

// Columns: words, word for an unknown code, code for an unknown word.
constexpr std::optional<std::uint8_t> kSendNothing;
constinit const Setting kCameraModel = {kCameraModelWords, "Unknown camera", kSendNothing};
constinit const Setting kCameraMode = {kCameraModeWords, "photo", kSendNothing};
constinit const Setting kImageMode = {kImageModeWords, "auto", kSendNothing};
constinit const Setting kResolution = {kResolutionWords, "", 0};
constinit const Setting kFramerate = {kFramerateWords, "", 0};
constinit const Setting kShotMode = {kShotModeWords, "", kSendNothing};
constinit const Setting kWhiteBalance = {kWhiteBalanceWords, "custom", kSendNothing};
constinit const Setting kColorMode = {kColorModeWords, "none", 0};
constinit const Setting kIso = {kIsoWords, "auto", 0};
constinit const Setting kEv = {kEvWords, "0", kSendNothing};
constinit const Setting kAspectRatio = {kAspectRatioWords, "4:3", kSendNothing};
constinit const Setting kVideoStandard = {kVideoStandardWords, "PAL", kSendNothing};
constinit const Setting kAntiFlicker = {kAntiFlickerWords, "auto", 0};

std::string_view ReportedWord(const Setting& setting, std::uint8_t code) {
  const auto row = std::ranges::find(setting.words, code, &SettingWord::code);
  return row == setting.words.end() ? setting.fallback_word : row->reported;
}

double EvOfCode(std::uint8_t code) {
  const std::size_t index = std::size_t{code} - kFirstEvCode;  // wraps below the first
  return index < kEvValues.size() ? kEvValues[index] : 0.0;
}

std::optional<std::uint8_t> EncodeWord(const Setting& setting, std::string_view commanded) {
  if (commanded.empty()) {
    return setting.default_code;  // empty marks the codes that no word commands
  }
  const auto row = std::ranges::find(setting.words, commanded, &SettingWord::commanded);
  return row == setting.words.end() ? setting.default_code : row->code;
}

std::uint8_t EncodeResolution(int width, int height) {
  return CodeOr0(kResolutionCodes, {width, height});
}

std::uint8_t EncodeFramerate(int frames_per_second) {
  return CodeOr0(kFramerateCodes, {frames_per_second});
}

std::uint8_t EncodeIso(int iso) { return CodeOr0(kIsoCodes, {iso}); }

std::optional<std::uint8_t> EncodeEv(double ev) {
  const auto value = std::ranges::find(kEvValues, ev);
  if (value == kEvValues.end()) {
    return std::nullopt;
  }
  return static_cast<std::uint8_t>(kFirstEvCode + std::distance(kEvValues.begin(), value));
}

std::optional<std::uint8_t> CodeOfReportedWord(const Setting& setting, std::string_view reported) {
  const auto row = std::ranges::find(setting.words, reported, &SettingWord::reported);
  return row == setting.words.end() ? std::nullopt : std::optional(row->code);
}

std::uint32_t EncodeShutter(std::string_view word) {
  const auto known = std::ranges::find(kShutterWords, word);
  if (known == kShutterWords.end()) {
    return 0;
  }
  return kShutterValues[static_cast<std::size_t>(std::distance(kShutterWords.begin(), known))];
}

}  // namespace kestrelbridge
