// The words for the camera's settings and the codes that stand for them.
//
// The camera reports its settings, and takes new ones, as small codes; telemetry, commands and
// people use words. Words are exact and case-sensitive. The two directions share the codes, but
// not always the words:
//
//   reported    what telemetry calls a code that the camera sent. An unknown code is never an
//               error, it gets the setting's fallback word.
//   commanded   what a command calls it. An unknown word has no code, so that nothing is sent,
//               except where the camera's default code goes out instead.
//
// All words are literals: data() of any of them is a NUL-terminated text. Everything here is
// constant; any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace kestrelbridge {

struct SettingWord {
  std::uint8_t code;
  std::string_view reported;
  std::string_view commanded;  // empty: no command word stands for this code
};

struct Setting {
  std::span<const SettingWord> words;        // all that the camera is known to have
  std::string_view fallback_word;            // reported for any other code
  std::optional<std::uint8_t> default_code;  // commanded by any other word; none: send nothing
};

extern const Setting kCameraModel;    // reported only
extern const Setting kCameraMode;     // photo or video
extern const Setting kImageMode;      // exposure mode
extern const Setting kResolution;     // commanded by EncodeResolution
extern const Setting kFramerate;      // commanded by EncodeFramerate
extern const Setting kShotMode;       // photo file format
extern const Setting kWhiteBalance;   // the temperature of "custom" travels beside it
extern const Setting kColorMode;      // colour profile
extern const Setting kIso;            // commanded by EncodeIso
extern const Setting kEv;             // exposure compensation; commanded by EncodeEv
extern const Setting kAspectRatio;    // of pictures
extern const Setting kVideoStandard;  // only the lowest bit of what the camera reports counts
extern const Setting kAntiFlicker;

// From the camera: the word for a code. EvOfCode gives exposure compensation also as a number.
std::string_view ReportedWord(const Setting& setting, std::uint8_t code);
double EvOfCode(std::uint8_t code);

// To the camera: the code for a command's word; none when nothing is to be sent.
[[nodiscard]] std::optional<std::uint8_t> EncodeWord(const Setting& setting,
                                                     std::string_view commanded);

// To the camera, for settings that are commanded as numbers. What the camera doesn't have is 0,
// for ISO the automatic; a value of exposure compensation must be exactly one of the 19.
std::uint8_t EncodeResolution(int width, int height);
std::uint8_t EncodeFramerate(int frames_per_second);
std::uint8_t EncodeIso(int iso);
[[nodiscard]] std::optional<std::uint8_t> EncodeEv(double ev);

// As the camera itself would: the code for which ReportedWord gives this word.
[[nodiscard]] std::optional<std::uint8_t> CodeOfReportedWord(const Setting& setting,
                                                             std::string_view reported);

// Exposure times, longest first: whole seconds and tenths end in a double quote, fractions of a
// second are 1/N. On the wire they are numbers of 24 bits, see FormatShutter.
inline constexpr std::array<std::string_view, 57> kShutterWords = {
    "30\"",   "25\"",   "20\"",   "15\"",   "10\"",   "9\"",    "8\"",    "7\"",    "6\"",
    "5\"",    "4\"",    "3.2\"",  "3\"",    "2.5\"",  "2\"",    "1.6\"",  "1.3\"",  "1\"",
    "1/1.25", "1/1.67", "1/2",    "1/2.5",  "1/3",    "1/4",    "1/5",    "1/6.25", "1/8",
    "1/10",   "1/12.5", "1/15",   "1/20",   "1/25",   "1/30",   "1/40",   "1/50",   "1/60",
    "1/80",   "1/100",  "1/120",  "1/160",  "1/200",  "1/240",  "1/320",  "1/400",  "1/500",
    "1/640",  "1/800",  "1/1000", "1/1250", "1/1600", "1/2000", "1/2500", "1/3200", "1/4000",
    "1/5000", "1/6400", "1/8000"};

// The 24-bit value (bytes A, B, C, low byte first) of one of the 57 words, 0 for any other text.
std::uint32_t EncodeShutter(std::string_view word);

// What a step to the next or previous value walks through, in order.
using Steps = std::span<const std::string_view>;

inline constexpr std::array<std::string_view, 7> kIsoStepWords = {"0",   "100",  "200", "400",
                                                                  "800", "1600", "3200"};
inline constexpr std::array<std::string_view, 19> kEvStepWords = {
    "-3.0", "-2.7", "-2.3", "-2.0", "-1.7", "-1.3", "-1.0", "-0.7", "-0.3", "0",
    "+0.3", "+0.7", "+1.0", "+1.3", "+1.7", "+2.0", "+2.3", "+2.7", "+3.0"};
inline constexpr std::array<std::string_view, 2> kImageModeStepWords = {"auto", "manual"};
inline constexpr std::array<std::string_view, 2> kWhiteBalanceStepWords = {"auto", "custom"};
inline constexpr std::array<std::string_view, 2> kColorModeStepWords = {"none", "d-clike"};

inline constexpr Steps kShutterSteps = Steps(kShutterWords).subspan(6);  // from 8 seconds down
inline constexpr Steps kIsoSteps = kIsoStepWords;  // "0" is automatic; 6400 is left out
inline constexpr Steps kEvSteps = kEvStepWords;
inline constexpr Steps kImageModeSteps = kImageModeStepWords;
inline constexpr Steps kWhiteBalanceSteps = kWhiteBalanceStepWords;
inline constexpr Steps kColorModeSteps = kColorModeStepWords;
static_assert(kShutterSteps.size() == 51 && kShutterSteps.front() == "8\"");

}  // namespace kestrelbridge
