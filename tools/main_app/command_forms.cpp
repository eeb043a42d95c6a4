#include "tools/main_app/command_forms.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <initializer_list>
#include <optional>

#include "control/resolution_words.h"
#include "state/vocabulary.h"
#include "tools/common/foreign_text.h"
#include "tools/common/tool_error.h"

namespace kestrelbridge::tools {
namespace {

using Form = CommandForm;
using Words = std::vector<CommandWord>;

constexpr auto kItems = EffectKind::kItems;

// Where no word commands the setting's default code, any other word does: its own, too.
template <const Setting& setting>
Words SettingWords() {
  Words words;
  for (const SettingWord& row : setting.words) {
    if (!row.commanded.empty()) {
      words.push_back({row.commanded, kItems, row.reported});
    } else if (row.code == setting.default_code) {
      words.push_back({row.reported, kItems, row.reported});
    }
  }
  return words;
}

// Settings with the same words in both directions.
template <const auto& texts>
Words SameWords() {
  Words words;
  for (const std::string_view text : texts) {
    words.push_back({text, kItems, text});
  }
  return words;
}

// Commanded as a number; a word that is none counts as 0, the automatic.
Words IsoWords() {
  Words words;
  for (const SettingWord& row : kIso.words) {
    words.push_back({row.reported, kItems, row.reported});
  }
  return words;
}

Words RecordWords() {
  return {{"start", EffectKind::kRecordingRuns}, {"stop", EffectKind::kRecordingStands}};
}
Words HistogramWords() {
  return {{"1", EffectKind::kHistogramOn}, {"0", EffectKind::kHistogramOff}};
}
Words BandWords() { return {{"5.8"}, {"2.4"}}; }
Words CardWords() { return {{"sd"}}; }
Words PowerWords() { return {{"sleep"}, {"wakeup"}, {"restart"}, {"shutdown"}}; }

// clang-format off
constexpr std::array kForms = {
    //   cmd                 param   words                         shown by
    Form{"record",           "",     RecordWords,                  "rec_time"},
    Form{"shot",             "",     nullptr,                      "shots_left", EffectKind::kShotTaken},
    Form{"camera",           "mode", SettingWords<kCameraMode>,    "camera_mode"},
    Form{"video_mode",       "",     SettingWords<kImageMode>,     "image_mode"},
    Form{"shutter",          "",     SameWords<kShutterWords>,     "shutter_set"},
    Form{"iso",              "",     IsoWords,                     "iso_set"},
    Form{"ev",               "",     SameWords<kEvStepWords>,      "ev"},
    Form{"wb",               "",     SettingWords<kWhiteBalance>,  "wb"},
    Form{"color",            "",     SettingWords<kColorMode>,     "color_mode"},
    Form{"video_resolution", "",     SameWords<kResolutionCommandWords>,  "format"},
    Form{"video_aspect",     "",     SettingWords<kAspectRatio>,   "ratio"},
    Form{"shotmode",         "",     SettingWords<kShotMode>,      "shot_mode"},
    Form{"antiflicker",      "",     SettingWords<kAntiFlicker>,   "antiflicker"},
    Form{"video_std",        "",     SettingWords<kVideoStandard>, "video_std"},
    Form{"wifi",             "mode", BandWords,                    ""},
    Form{"resetcamera",      "",     nullptr,                      ""},
    Form{"format",           "",     CardWords,                    ""},
    Form{"histogram",        "",     HistogramWords,               "histogram"},
    Form{"power",            "",     PowerWords,                   ""},
};
// clang-format on

// The one command that takes a word more: a temperature behind "wb custom".
constexpr std::string_view kWithTemperature = "custom";
constexpr char kTemperatureText[] = "whole kelvin, 2000 to 10000";

// A word as it is to be typed.
std::string Typed(std::string_view word) {
  const bool is_plain = word.find_first_of(" \"") == std::string_view::npos;
  return is_plain ? std::string(word) : "'" + std::string(word) + "'";
}

// The words with blanks between them, as many on a line as fit. Lines but the first are indented.
std::string Wrapped(std::span<const std::string> words, std::size_t indent) {
  constexpr std::size_t kWidth = 96;
  std::string text;
  std::size_t column = indent;
  for (const std::string& word : words) {
    if (!text.empty() && column + 1 + word.size() > kWidth) {
      text += "\n" + std::string(indent, ' ');
      column = indent;
    } else if (!text.empty()) {
      text += ' ';
      ++column;
    }
    text += word;
    column += word.size();
  }
  return text;
}

bool IsWhiteBalance(const CommandForm& form) { return form.cmd == "wb"; }

std::vector<std::string> TypedWords(const CommandForm& form) {
  std::vector<std::string> words;
  for (const CommandWord& word : form.words()) {
    words.push_back(Typed(word.word));
  }
  if (IsWhiteBalance(form)) {
    words.emplace_back("KELVIN");
  }
  return words;
}

// "camera mode", "shot".
std::string Opening(const CommandForm& form) {
  return std::string(form.cmd) + (form.param.empty() ? "" : " " + std::string(form.param));
}

std::string WordsText(const CommandForm& form) {
  constexpr std::size_t kIndent = 2;
  return std::string(kIndent, ' ') + Wrapped(TypedWords(form), kIndent) +
         (IsWhiteBalance(form) ? std::string("\n  KELVIN: ") + kTemperatureText : "");
}

[[noreturn]] void RefuseCommand(const std::string& cmd) {
  std::vector<std::string> known;
  for (const CommandForm& form : kForms) {
    known.push_back(Opening(form));
    known.back() += &form == &kForms.back() ? "" : ",";
  }
  throw ToolError("there is no command \"" + PrintableText(cmd) + "\"; there are\n  " +
                  Wrapped(known, 2) + "\n--help lists their words, --force sends it anyway");
}

// `words` are all that was typed.
[[noreturn]] void RefuseWords(const CommandForm& form, std::span<const std::string> words) {
  std::string typed;
  for (const std::string& word : words) {
    typed += (typed.empty() ? "" : " ") + PrintableText(word);
  }
  if (form.words == nullptr) {
    throw ToolError("\"" + typed + "\": the command \"" + Opening(form) + "\" takes no word");
  }
  throw ToolError("\"" + typed + "\": the command \"" + Opening(form) + "\" takes one of\n" +
                  WordsText(form) + "\n--force sends anything");
}

const CommandForm& FindForm(std::span<const std::string> words) {
  const auto form = std::ranges::find(kForms, words[0], &CommandForm::cmd);
  if (form == kForms.end()) {
    RefuseCommand(words[0]);
  }
  return *form;
}

CommandEffect EffectOfWord(const CommandForm& form, const CommandWord& word) {
  if (word.effect != EffectKind::kItems) {
    return {.kind = word.effect, .items = {}};
  }
  return {.kind = EffectKind::kItems,
          .items = {{std::string(form.shown_by), std::string(word.reported)}}};
}

// The camera has a byte for hundreds of kelvin.
std::optional<std::string> ReportedTemperature(std::string_view text) {
  int kelvin = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), kelvin);
  if (error != std::errc{} || end != text.data() + text.size() || kelvin < kLowestKelvin ||
      kelvin > kHighestKelvin) {
    return std::nullopt;
  }
  return std::to_string(kelvin / 100 * 100);
}

// `typed` is the whole command, of which the form's opening has so many words.
CommandEffect EffectOfWords(const CommandForm& form, std::span<const std::string> typed,
                            std::size_t opening) {
  const auto words = typed.subspan(opening);
  if (form.words == nullptr) {
    if (!words.empty()) {
      RefuseWords(form, typed);
    }
    return {.kind = form.effect, .items = {}};
  }
  const Words known = form.words();
  const auto word =
      words.empty() ? known.end() : std::ranges::find(known, words[0], &CommandWord::word);
  const bool has_temperature = IsWhiteBalance(form) && words.size() == 2;
  const bool wants_temperature = word != known.end() && TakesTemperature(form, word->word);
  if (word == known.end() || wants_temperature != has_temperature ||
      words.size() > (has_temperature ? 2U : 1U)) {
    RefuseWords(form, typed);
  }
  CommandEffect effect = EffectOfWord(form, *word);
  if (has_temperature) {
    const auto reported = ReportedTemperature(words[1]);
    if (!reported) {
      RefuseWords(form, typed);
    }
    effect.items.push_back({"wb_temp", *reported});
  }
  return effect;
}

}  // namespace

std::span<const CommandForm> CommandForms() { return kForms; }

bool TakesTemperature(const CommandForm& form, std::string_view word) {
  return IsWhiteBalance(form) && word == kWithTemperature;
}

CommandRequest RequestOfWords(std::span<const std::string> words) {
  const CommandForm& form = FindForm(words);
  const bool has_param = !form.param.empty();
  if (has_param && (words.size() < 2 || words[1] != form.param)) {
    RefuseWords(form, words);
  }
  return {.json = JsonOfWords(words), .effect = EffectOfWords(form, words, has_param ? 2 : 1)};
}

std::string JsonOfWords(std::span<const std::string> words) {
  constexpr const char* kMembers[] = {"cmd", "param", "value"};
  if (words.size() > std::size(kMembers)) {
    throw ToolError("a command has three words at most");
  }
  std::string json;
  for (std::size_t i = 0; i < words.size(); ++i) {
    json += (i == 0 ? "{\"" : ",\"") + std::string(kMembers[i]) + "\":" + JsonString(words[i]);
  }
  return json + "}";
}

std::string CommandFormsText() {
  constexpr std::size_t kIndent = 6;
  std::string text;
  for (const CommandForm& form : kForms) {
    text += "  " + Opening(form) + (form.words == nullptr ? "" : " WORD");
    text += form.shown_by.empty() ? "" : "   (shown by " + std::string(form.shown_by) + ")";
    text += "\n";
    if (form.words != nullptr) {
      text += std::string(kIndent, ' ') + Wrapped(TypedWords(form), kIndent) + "\n";
    }
  }
  return text + "  KELVIN: " + kTemperatureText + ", behind \"wb custom\"\n";
}

}  // namespace kestrelbridge::tools
