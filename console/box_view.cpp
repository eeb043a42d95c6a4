#include "console/box_view.h"

#include <algorithm>
#include <array>
#include <span>
#include <utility>

#include "console/command_desk.h"
#include "state/telemetry.h"
#include "tools/common/foreign_text.h"

namespace kestrelbridge::console {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using tools::JsonString;
using tools::RecordType;

constexpr seconds kSilence{2};            // a second's text record, and a second's grace
constexpr seconds kHistogramLife{1};      // five come in a second
constexpr milliseconds kUnitLife{1'000};  // without one for that long, units do not come
constexpr milliseconds kCountingLife{2'500};
constexpr milliseconds kTellPeriod{100};

// How an item is called and what it is counted in, where its key alone would not do.
struct ItemLabel {
  std::string_view name;
  std::string_view label;
  std::string_view unit = {};
};
constexpr ItemLabel kItemLabels[] = {
    {"camera_detected", "Camera there"},
    {"camera_model", "Camera"},
    {"camera_mode", "Mode"},
    {"sd", "Card"},
    {"rec_time_left", "Time left"},
    {"rec_time", "Recording"},
    {"battery_level", "Battery", "%"},
    {"battery_charging", "Charging"},
    {"framerate", "Frame rate", "fps"},
    {"ae", "Automatic exposure"},
    {"shutter", "Shutter", "s"},
    {"shutter_set", "Shutter set", "s"},
    {"iso", "ISO"},
    {"iso_set", "ISO set"},
    {"ev", "EV"},
    {"image_mode", "Exposure"},
    {"color_mode", "Colour"},
    {"wb", "White balance"},
    {"wb_temp", "Colour temperature", "K"},
    {"ratio", "Aspect"},
    {"video_std", "Standard"},
    {"antiflicker", "Anti-flicker"},
};

// "shots_left" becomes "Shots left".
std::string LabelOfKey(std::string_view key) {
  std::string label(key);
  std::ranges::replace(label, '_', ' ');
  label[0] = static_cast<char>(label[0] - 'a' + 'A');
  return label;
}

std::string ItemJson(std::string_view key) {
  const auto row = std::ranges::find(kItemLabels, key, &ItemLabel::name);
  const bool is_known = row != std::end(kItemLabels);
  return R"({"name":)" + JsonString(key) + R"(,"label":)" +
         JsonString(is_known ? row->label : LabelOfKey(key)) + R"(,"unit":)" +
         JsonString(is_known ? row->unit : "") + "}";
}

// The keys of the text record, from who writes it.
std::string ItemsJson() {
  const TextRecord empty = BuildTextRecord(CameraState{});
  const auto record = tools::ParseTelemetryRecord(std::span(empty.buffer).first(empty.length));
  std::string json = "[";
  for (const tools::TelemetryItem& item : record.items) {
    json += (json.ends_with('[') ? "" : ",") + ItemJson(item.key);
  }
  return json + "]";
}

std::string ProblemJson(std::string_view id, std::string_view text, bool is_active) {
  return R"({"type":"problem","id":)" + JsonString(id) + R"(,"text":)" + JsonString(text) +
         R"(,"active":)" + (is_active ? "true}" : "false}");
}

}  // namespace

void BoxView::TakeRecord(const tools::TelemetryRecord& record, Now now) {
  last_record_ = now.steady;
  facts_.has_telemetry = true;
  if (record.type == RecordType::kText) {
    TakeText(record, now);
  } else if (record.type == RecordType::kHistogram) {
    histogram_ = record;
    last_histogram_ = now.steady;
  }
  TellTelemetry(now, false);
}

void BoxView::TakeText(const tools::TelemetryRecord& record, Now now) {
  const auto time = tools::ItemValue(record, "rec_time");
  const auto before = tools::ItemValue(facts_.text, "rec_time");
  if (time && before && *time != *before && *time != "00:00:00") {
    last_rec_time_change_ = now.steady;
  }
  facts_.text = record;
  facts_.is_recording = now.steady - last_rec_time_change_ < kCountingLife;
}

void BoxView::TakeFeed(const BoxNews& news, Now now) {
  metrics_ = news.metrics;
  facts_.has_share = news.has_share;
  facts_.has_counters = metrics_.has_value();
  facts_.has_daemon = metrics_.has_value() || news.has_daemon_block;
  if (metrics_) {
    const auto start = metrics_->Value("kestrelbridge_start_time_seconds");
    if (start && start != daemon_start_) {
      TellEvent(now, daemon_start_ ? "daemon started again" : "daemon runs");
      daemon_start_ = start;
    }
    facts_.has_video =
        metrics_->Value("kestrelbridge_camera_datagrams_total", R"(kind="video")").value_or(0) != 0;
  }
  if (had_daemon_ && !facts_.has_daemon) {
    TellEvent(now, "daemon ended");
    daemon_start_ = daemon_start_.value_or(0);
  }
  had_daemon_ = facts_.has_daemon;
  LinkSample sample;
  TakeCounters(sample, metrics_);
  NoteLinks(sample, now);
}

void BoxView::NoteLinks(const LinkSample& sample, Now now) {
  facts_.camera_up = sample.camera_up;
  facts_.camera_was_up = facts_.camera_was_up || sample.camera_up;
  if (last_sample_ && last_sample_->camera_up != sample.camera_up) {
    TellEvent(now, sample.camera_up ? "camera found" : "camera lost");
  }
  if (last_sample_ && last_sample_->phone_up != sample.phone_up) {
    TellEvent(now, sample.phone_up ? "phone app found" : "phone app lost");
  }
  last_sample_ = sample;
}

void BoxView::TakeRing(const RingNews& news, Now now) {
  facts_.ring = news.state;
  for (const Unit& unit : news.units) {
    meter_.Count(PayloadOf(unit).size(), unit.arrival_us);
    last_unit_ = now.steady;
  }
  if (std::exchange(ring_restarts_, news.restarts) != news.restarts) {
    TellEvent(now, "the ring began anew");
  }
}

void BoxView::Judge(const UnitHistory& history, Now now) {
  facts_.units_come = now.steady - last_unit_ < kUnitLife && last_unit_ != SteadyTime();
  facts_.has_keyframe = history.LastKeyframe() != nullptr;
  facts_.has_telemetry = now.steady - last_record_ < kSilence && last_record_ != SteadyTime();
  facts_.is_recording = facts_.is_recording && now.steady - last_rec_time_change_ < kCountingLife;
  TellProblems();
  std::string allowed = AllowedJson(facts_, view_only_);
  if (allowed != told_allowed_) {
    messages_.push_back(allowed);
    told_allowed_ = std::move(allowed);
  }
}

void BoxView::Tick(Now now) {
  LinkSample sample;
  sample.time_ms = now.unix_ms;
  const std::chrono::duration<double> elapsed = now.steady - last_tick_;
  meter_.Read(sample, last_tick_ == SteadyTime() ? 1 : std::max(elapsed.count(), 0.1));
  last_tick_ = now.steady;
  TakeCounters(sample, metrics_);
  messages_.push_back(log_.Add(sample));
  if (facts_.has_telemetry) {
    TellTelemetry(now, true);
  }
}

void BoxView::TellTelemetry(Now now, bool even_if_same) {
  if (facts_.text.type != RecordType::kText || now.steady - last_told_ < kTellPeriod) {
    return;
  }
  std::string json = TelemetryJson(now);
  if (!even_if_same && json == told_telemetry_) {
    return;
  }
  messages_.push_back(R"({"type":"telemetry","time_ms":)" + std::to_string(now.unix_ms) + json);
  told_telemetry_ = std::move(json);
  last_told_ = now.steady;
}

// The rest of the message, behind its time.
std::string BoxView::TelemetryJson(Now now) const {
  std::string json = R"(,"items":{)";
  for (const tools::TelemetryItem& item : facts_.text.items) {
    json += (json.ends_with('{') ? "" : ",") + JsonString(item.key) + ":" + JsonString(item.value);
  }
  json += std::string(R"(},"recording":)") + (facts_.is_recording ? "true" : "false");
  if (histogram_.type != RecordType::kHistogram || now.steady - last_histogram_ >= kHistogramLife) {
    return json + R"(,"histogram":null})";
  }
  json += R"(,"histogram":[)";
  for (const std::uint8_t value : histogram_.histogram) {
    json += (json.ends_with('[') ? "" : ",") + std::to_string(value);
  }
  return json + "]}";
}

void BoxView::TellProblems() {
  std::map<std::string, std::string, std::less<>> problems;
  for (const Problem& problem : ProblemsOf(facts_)) {
    problems.emplace(problem.id, problem.text);
  }
  for (const auto& [id, text] : problems) {
    const auto told = told_problems_.find(id);
    if (told == told_problems_.end() || told->second != text) {
      messages_.push_back(ProblemJson(id, text, true));
    }
  }
  for (const auto& [id, text] : told_problems_) {
    if (!problems.contains(id)) {
      messages_.push_back(ProblemJson(id, text, false));
    }
  }
  told_problems_ = std::move(problems);
}

void BoxView::TellEvent(Now now, std::string_view text) {
  messages_.push_back(log_.AddEvent(now.unix_ms, text));
}

std::string BoxView::HelloJson(Now now) const {
  static const std::string items = ItemsJson();
  static const std::string commands = CommandsJson();
  return R"({"type":"hello","version":)" + JsonString(version_) + R"(,"view_only":)" +
         (view_only_ ? "true" : "false") + R"(,"time_ms":)" + std::to_string(now.unix_ms) +
         R"(,"items":)" + items + R"(,"commands":)" + commands + "}";
}

std::vector<std::string> BoxView::Greeting(Now now) const {
  std::vector<std::string> greeting = {HelloJson(now), log_.EventsJson(), log_.HistoryJson(),
                                       AllowedJson(facts_, view_only_)};
  for (const auto& [id, text] : told_problems_) {
    greeting.push_back(ProblemJson(id, text, true));
  }
  if (facts_.text.type == RecordType::kText) {
    greeting.push_back(R"({"type":"telemetry","time_ms":)" + std::to_string(now.unix_ms) +
                       TelemetryJson(now));
  }
  return greeting;
}

}  // namespace kestrelbridge::console
