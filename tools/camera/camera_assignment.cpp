#include "tools/camera/camera_assignment.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <optional>
#include <set>
#include <string_view>

#include "state/vocabulary.h"
#include "tools/common/tool_error.h"

namespace kestrelbridge::tools {
namespace {

constexpr std::string_view kStartState[] = {
    "camera_model=DJI Osmo Action",
    "camera_mode=video",
    "resolution=1920x1080",
    "framerate=30",
    "wb=auto",
    "wb_temp=5600",
    "shot_mode=JPG",
    "aperture=2.8",
    "iso=100",
    "iso_set=auto",
    "ae=1",
    "ev=0",
    "color_mode=none",
    "image_mode=auto",
    "ratio=16:9",
    "video_std=NTSC",
    "antiflicker=auto",
    "shutter=1/100",
    "battery_level=80",
};

// Texts of numbers. Nothing when the text is no number of that form; limits are checked later.
using Reader = std::optional<double> (*)(std::string_view text);

std::optional<double> Whole(std::string_view text) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return static_cast<double>(value);
}

std::optional<double> Decimal(std::string_view text) {
  if (text.empty() || text.find_first_not_of("0123456789.") != std::string_view::npos) {
    return std::nullopt;
  }
  const std::string terminated(text);
  char* end = nullptr;
  const double value = std::strtod(terminated.c_str(), &end);
  return *end == '\0' ? std::optional(value) : std::nullopt;
}

std::optional<double> Megabytes(std::string_view text) {
  if (!text.ends_with('G')) {
    return Whole(text);
  }
  const auto gigabytes = Decimal(text.substr(0, text.size() - 1));
  return gigabytes ? std::optional(*gigabytes * 1000) : std::nullopt;
}

std::optional<double> Duration(std::string_view text) {
  double total = 0;
  for (int part = 0; part < 3; ++part) {
    const std::size_t colon = text.find(':');
    const auto value = Whole(text.substr(0, colon));
    if (!value) {
      return std::nullopt;
    }
    total = total * 60 + *value;
    if (colon == std::string_view::npos) {
      return total;
    }
    text.remove_prefix(colon + 1);
  }
  return std::nullopt;
}

std::optional<double> Hundredths(std::string_view text) {
  const auto value = Decimal(text);
  return value ? std::optional(*value * 100) : std::nullopt;
}

std::optional<double> Hundreds(std::string_view text) {
  const auto value = Whole(text);
  return value && std::fmod(*value, 100) == 0 ? std::optional(*value / 100) : std::nullopt;
}

struct NumberField {
  std::string_view name;
  Reader read;
  double highest;  // after reading
  std::string_view takes;
};

constexpr NumberField kNumberFields[] = {
    {"status_byte_0", Whole, 255, "0 to 255"},
    {"status_byte_31", Whole, 255, "0 to 255"},
    {"status_byte_2", Whole, 255, "0 to 255"},
    {"sd", Megabytes, 4'294'967'295, "0 to 4294967295 (megabytes), or gigabytes such as 59.6G"},
    {"shots_left", Whole, 2'147'483'647, "0 to 2147483647"},
    {"rec_time_left", Duration, 4'294'967'295, "0 to 4294967295 (seconds), or 01:02:05"},
    {"rec_time", Duration, 65'535, "0 to 65535 (seconds), or 01:02:05"},
    {"wb_temp", Hundreds, 255, "0 to 25500 (kelvin), in hundreds"},
    {"aperture", Hundredths, 65'535, "0 to 655.35"},
    {"iso", Whole, 65'535, "0 to 65535"},
    {"ae", Whole, 1, "0 or 1"},
    {"battery_level", Whole, 100, "0 to 100 (percent)"},
    {"battery_charging", Whole, 1, "0 or 1"},
};

struct Alias {
  std::string_view name;
  std::string_view field;
};

constexpr Alias kAliases[] = {
    {"model", "camera_model"},
    {"mode", "camera_mode"},
    {"sd_free_mb", "sd"},
    {"battery", "battery_level"},
    {"charging", "battery_charging"},
    {"fps", "framerate"},
    {"color", "color_mode"},
    {"aspect", "ratio"},
};

std::string Joined(std::string list, std::string_view item) {
  return list.append(list.empty() ? "" : ", ").append(item);
}

std::string AllNames() {
  std::string names;
  for (const auto& fields : {kStatusPushFields, kSettingsPushFields, kBatteryPushFields}) {
    for (const PushField& field : fields) {
      names = Joined(names, field.name);
    }
  }
  for (const Alias& alias : kAliases) {
    names = Joined(names, alias.name);
  }
  return names;
}

[[noreturn]] void RefuseWord(std::string_view name, std::string_view word, std::string_view takes) {
  throw ToolError("\"" + std::string(word) + "\" is nothing that " + std::string(name) +
                  " can be; it takes " + std::string(takes));
}

std::uint32_t ReadWord(std::string_view name, const Setting& setting, std::string_view word) {
  if (const auto code = CodeOfReportedWord(setting, word)) {
    return *code;
  }
  std::string words;
  for (const SettingWord& row : setting.words) {
    words = Joined(words, row.reported);
  }
  RefuseWord(name, word, words);
}

std::uint32_t ReadShutter(std::string_view name, std::string_view word) {
  if (const std::uint32_t value = EncodeShutter(word)) {
    return value;
  }
  std::string words;
  for (const std::string_view known : kShutterWords) {
    words = Joined(words, known);
  }
  RefuseWord(name, word, words);
}

std::uint32_t ReadNumber(std::string_view name, const NumberField& row, std::string_view word) {
  const auto value = row.read(word);
  if (!value || std::round(*value) > row.highest) {
    RefuseWord(name, word, row.takes);
  }
  return static_cast<std::uint32_t>(std::round(*value));
}

// The value for the field; `name` is what the user calls it.
std::uint32_t ReadValue(std::string_view name, const PushField& field, std::string_view word) {
  if (field.setting != nullptr) {
    return ReadWord(name, *field.setting, word);
  }
  const auto row = std::ranges::find(kNumberFields, field.name, &NumberField::name);
  return row == std::end(kNumberFields) ? ReadShutter(name, word) : ReadNumber(name, *row, word);
}

// Returns the name of the field that was set.
std::string_view Assign(CameraModel& model, std::string_view assignment) {
  const std::size_t equals = assignment.find('=');
  if (equals == std::string_view::npos) {
    throw ToolError("\"" + std::string(assignment) + "\" is not of the form NAME=WORD");
  }
  const std::string_view name = assignment.substr(0, equals);
  const auto alias = std::ranges::find(kAliases, name, &Alias::name);
  const PushField* const field = FindField(alias == std::end(kAliases) ? name : alias->field);
  if (field == nullptr) {
    throw ToolError("the camera has no \"" + std::string(name) + "\"; it has " + AllNames());
  }
  Set(model, field->name, ReadValue(name, *field, assignment.substr(equals + 1)));
  return field->name;
}

// What was asked for and what is in use agree, where only one of them was given.
void Reconcile(CameraModel& model, const std::set<std::string_view>& given) {
  const auto only = [&given](std::string_view name, std::string_view other) {
    return given.contains(name) && !given.contains(other);
  };
  if (only("iso_set", "iso")) {
    SetIsoCode(model, static_cast<std::uint8_t>(Get(model, "iso_set")));
  }
  if (only("iso", "iso_set")) {
    Set(model, "iso_set", EncodeIso(static_cast<int>(Get(model, "iso"))));
  }
  if (only("shutter_set", "shutter")) {
    SetShutterValue(model, Get(model, "shutter_set"));
  }
  if (only("shutter", "shutter_set")) {
    SetShutterValue(model, Get(model, "shutter"));
  }
  if (only("image_mode", "ae")) {
    SetImageModeCode(model, static_cast<std::uint8_t>(Get(model, "image_mode")));
  }
}

template <typename Assignments>
void AssignAll(CameraModel& model, const Assignments& assignments) {
  std::set<std::string_view> given;
  for (const std::string_view assignment : assignments) {
    given.insert(Assign(model, assignment));
  }
  Reconcile(model, given);
}

}  // namespace

CameraModel StartModel(std::span<const std::string> assignments) {
  CameraModel model;
  FormatCard(model, model);
  AssignAll(model, kStartState);
  AssignAll(model, assignments);
  return model;
}

CLI::Validator AssignmentValidator() {
  return {[](std::string& text) {
            try {
              CameraModel model;
              Assign(model, text);
            } catch (const ToolError& error) {
              return std::string(error.what());
            }
            return std::string();
          },
          ""};
}

}  // namespace kestrelbridge::tools
