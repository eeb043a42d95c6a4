#include "control/app_commands.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "base/counters.h"
#include "base/log.h"
#include "control/camera_commands.h"
#include "control/resolution_words.h"
#include "state/spelled_numbers.h"

namespace kestrelbridge {
namespace {

constexpr char kMarker = '!';

// The string members of a command that take part; null where absent or no string.
struct Members {
  const char* cmd;
  const char* param;
  const char* value;
};

enum class Needs { kNothing, kParam, kParamAndValue };

struct ResolutionWord {
  std::string_view word;
  SpelledNumbers numbers;  // width, height, frames per second
};
constexpr auto kResolutions = [] {
  std::array<ResolutionWord, kResolutionCommandWords.size()> rows{};
  std::ranges::transform(kResolutionCommandWords, rows.begin(), [](std::string_view word) {
    return ResolutionWord{word, NumbersOf(word)};
  });
  return rows;
}();

void SetResolution(std::string_view word) {
  const auto row = std::ranges::find(kResolutions, word, &ResolutionWord::word);
  if (row != kResolutions.end()) {
    SetVideoResolution(row->numbers[0], row->numbers[1], row->numbers[2]);
  }
}

struct AppCommand {
  std::string_view cmd;
  std::string_view required_param;  // empty: any
  Needs needs;
  void (*run)(const Members& members);
};

constexpr auto kNothing = Needs::kNothing;
constexpr auto kParam = Needs::kParam;
constexpr auto kParamAndValue = Needs::kParamAndValue;

// clang-format off
constexpr std::array kAppCommands = {
    AppCommand{"record", "start", kParam, [](const Members&) { SetRecording(true); }},
    AppCommand{"record", "stop", kParam, [](const Members&) { SetRecording(false); }},
    AppCommand{"shot", "", kNothing, [](const Members&) { TakeShot(); }},
    AppCommand{"camera", "mode", kParamAndValue, [](const Members& m) { SetCameraMode(m.value); }},
    AppCommand{"video_mode", "", kParam, [](const Members& m) { SetVideoMode(m.param); }},
    AppCommand{"shutter", "", kParam, [](const Members& m) { SetShutter(m.param); }},
    AppCommand{"iso", "", kParam, [](const Members& m) { SetIso(m.param); }},
    AppCommand{"ev", "", kParam, [](const Members& m) { SetEv(m.param); }},
    AppCommand{"wb", "", kParam, [](const Members& m) { SetWhiteBalance(m.param, m.value); }},
    AppCommand{"color", "", kParam, [](const Members& m) { SetColor(m.param); }},
    AppCommand{"video_resolution", "", kParam, [](const Members& m) { SetResolution(m.param); }},
    AppCommand{"video_aspect", "", kParam, [](const Members& m) { SetAspectRatio(m.param); }},
    AppCommand{"shotmode", "", kParam, [](const Members& m) { SetShotMode(m.param); }},
    AppCommand{"antiflicker", "", kParam, [](const Members& m) { SetAntiFlicker(m.param); }},
    AppCommand{"video_std", "", kParam, [](const Members& m) { SetVideoStandard(m.param); }},
    AppCommand{"wifi", "mode", kParamAndValue, [](const Members& m) { SetWifiMode(m.value); }},
    AppCommand{"resetcamera", "", kNothing, [](const Members&) { ResetCamera(); }},
    AppCommand{"format", "", kParam, [](const Members& m) { FormatSdCard(m.param); }},
    AppCommand{"histogram", "", kParam, [](const Members& m) { SetHistogram(m.param); }},
    AppCommand{"power", "", kParam, [](const Members& m) { SetPower(m.param); }},
};
// clang-format on

bool HasWhatItNeeds(const AppCommand& command, const Members& members) {
  switch (command.needs) {
    case Needs::kNothing:
      return true;
    case Needs::kParam:
      return members.param != nullptr;
    case Needs::kParamAndValue:
      return members.param != nullptr && members.value != nullptr;
  }
  return false;
}

bool IsAskedFor(const AppCommand& command, const Members& members) {
  return command.cmd == members.cmd && HasWhatItNeeds(command, members) &&
         (command.required_param.empty() || command.required_param == members.param);
}

// A string with an escaped NUL would end there for cJSON and us: "shot\u0000" is no "shot". In its
// place comes another control character, of which no word of ours has any either.
std::string MarkNuls(std::string json) {
  constexpr std::string_view kNul = "\\u0000";
  for (std::size_t at = 0; (at = json.find('\\', at)) != std::string::npos;) {
    const bool is_nul = json.compare(at, kNul.size(), kNul) == 0;
    if (is_nul) {
      json[at + kNul.size() - 1] = '1';
    }
    at += is_nul ? kNul.size() : 2;  // an escaped backslash escapes nothing
  }
  return json;
}

using JsonTree = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

// The first member of that name, whatever its case; null when its value is no string.
const char* StringMember(const JsonTree& object, const char* name) {
  return cJSON_GetStringValue(cJSON_GetObjectItem(object.get(), name));
}

bool RunCommand(const Members& members) {
  const auto asked = std::ranges::find_if(
      kAppCommands, [&members](const AppCommand& command) { return IsAskedFor(command, members); });
  if (asked == kAppCommands.end()) {
    return false;
  }
  asked->run(members);
  return true;
}

// False when the text is no known command.
bool TakeMessage(const char* text) {
  if (*text != kMarker) {
    return false;
  }
  const char* json = text + 1;
  Log("JSON commands from app: %s\n", json);
  const std::string marked = MarkNuls(json);
  // Takes text behind the object, and refuses nesting that would be too deep for the stack.
  const JsonTree object(cJSON_Parse(marked.c_str()), cJSON_Delete);
  if (cJSON_IsObject(object.get()) == 0) {
    return false;
  }
  const Members members = {.cmd = StringMember(object, "cmd"),
                           .param = StringMember(object, "param"),
                           .value = StringMember(object, "value")};
  return members.cmd != nullptr && RunCommand(members);
}

}  // namespace

void DispatchAppCommand(const char* text) {
  if (!TakeMessage(text)) {
    GetCounters().app_messages_ignored.Add();
  }
}

}  // namespace kestrelbridge
