#include "console/box_facts.h"

#include <charconv>

#include "tools/common/foreign_text.h"
#include "tools/main_app/command_forms.h"

namespace kestrelbridge::console {
namespace {

constexpr int kLowBattery = 15;  // percent
constexpr std::string_view kNoTime = "00:00:00";

std::string_view Item(const BoxFacts& facts, std::string_view key) {
  return tools::ItemValue(facts.text, key).value_or("");
}

int Number(std::string_view text, int otherwise) {
  int value = otherwise;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

void AppendCameraProblems(std::vector<Problem>& problems, const BoxFacts& facts) {
  if (const int battery = Number(Item(facts, "battery_level"), 100); battery < kLowBattery) {
    problems.push_back(
        {"battery_low", "the camera's battery is at " + std::to_string(battery) + " %"});
  }
  if (Item(facts, "sd").empty()) {
    problems.push_back({"no_card", "the camera has no card, or no room on it"});
  } else if (Number(Item(facts, "shots_left"), 1) == 0 || Item(facts, "rec_time_left") == kNoTime) {
    problems.push_back({"card_full", "the camera's card is full"});
  }
}

bool IsOneOf(std::string_view word, std::initializer_list<std::string_view> words) {
  for (const std::string_view other : words) {
    if (word == other) {
      return true;
    }
  }
  return false;
}

// What a camera in that mode does not take. Where the telemetry does not tell, everything is tried.
bool IsAllowed(const BoxFacts& facts, std::string_view cmd) {
  const std::string_view mode = Item(facts, "camera_mode");
  const std::string_view exposure = Item(facts, "image_mode");
  if (IsOneOf(cmd, {"record", "video_resolution"}) && mode == "photo") {
    return false;
  }
  if (IsOneOf(cmd, {"shot", "shotmode", "video_aspect"}) && mode == "video") {
    return false;
  }
  if (cmd == "shutter" && IsOneOf(exposure, {"auto", "aperture"})) {
    return false;
  }
  if (cmd == "iso" && exposure == "auto") {
    return false;
  }
  if (cmd == "ev" && exposure == "manual") {
    return false;
  }
  return !facts.is_recording ||
         !IsOneOf(cmd, {"camera", "video_resolution", "video_std", "format", "resetcamera"});
}

}  // namespace

std::optional<Problem> WhyNoPicture(const BoxFacts& facts) {
  if (facts.units_come && facts.has_keyframe) {
    return std::nullopt;
  }
  if (facts.units_come) {
    return Problem{"no_keyframe", "units come, but no keyframe to begin with yet"};
  }
  if (facts.ring == RingState::kNoPermission) {
    return Problem{"no_permission",
                   "this console may not read the video: its user is not in the group "
                   "kestrelbridge"};
  }
  if (facts.ring == RingState::kAbsent) {
    return Problem{"no_ring",
                   "no daemon has run since the box was started (systemctl status kestrelbridge)"};
  }
  if (!facts.has_daemon) {
    return Problem{"no_daemon", "the daemon does not run (systemctl status kestrelbridge)"};
  }
  if (facts.has_counters && !facts.camera_up) {
    return Problem{"no_camera",
                   "the daemon hears no camera: is it on, and the box in its Wi-Fi? "
                   "(kestrelctl doctor)"};
  }
  if (facts.has_counters && facts.has_video) {
    return Problem{"no_video",
                   "the camera sends video, of which no whole access unit comes "
                   "(kestrelctl stats)"};
  }
  return Problem{"no_video", "the camera sends no video yet"};
}

std::vector<Problem> ProblemsOf(const BoxFacts& facts) {
  std::vector<Problem> problems;
  if (!facts.units_come) {
    problems.push_back(*WhyNoPicture(facts));
  }
  if (facts.has_counters && facts.camera_was_up && !facts.camera_up) {
    problems.push_back({"link_lost", "the link to the camera is lost"});
  }
  if (!facts.has_telemetry) {
    problems.push_back(
        {"no_telemetry", facts.has_share
                             ? "no telemetry for two seconds"
                             : "no telemetry: kestrelshare does not run (systemctl status "
                               "kestrelbridge-share)"});
  } else if (Item(facts, "camera_detected") == "1") {
    AppendCameraProblems(problems, facts);
  }
  return problems;
}

std::string AllowedJson(const BoxFacts& facts, bool view_only) {
  std::string json = R"({"type":"allowed","cmds":{)";
  for (const tools::CommandForm& form : tools::CommandForms()) {
    const bool is_allowed = !view_only && facts.has_telemetry && IsAllowed(facts, form.cmd);
    json += (json.ends_with('{') ? "" : ",") + tools::JsonString(form.cmd) + ":" +
            (is_allowed ? "true" : "false");
  }
  return json + "}}";
}

}  // namespace kestrelbridge::console
