#include "tools/main_app/command_effect.h"

#include <algorithm>
#include <charconv>
#include <string_view>
#include <utility>

namespace kestrelbridge::tools {
namespace {

// A second between two texts need not hold a new second of the recording, two do.
constexpr int kSameTimesWhenStanding = 2;
// Each status record is followed by a histogram record, while there is one to tell.
constexpr int kStatusRecordsWhenOff = 3;
constexpr std::string_view kNoTime = "00:00:00";

std::optional<unsigned long> ShotsLeft(const TelemetryRecord& text) {
  const std::string_view value = ItemValue(text, "shots_left").value_or("");
  unsigned long shots = 0;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), shots);
  return error == std::errc{} ? std::optional(shots) : std::nullopt;
}

std::string ItemText(std::string_view key, std::string_view value) {
  return std::string(key) + "=" + std::string(value);
}

}  // namespace

std::string EffectText(const CommandEffect& effect) {
  switch (effect.kind) {
    case EffectKind::kNone:
      return "";
    case EffectKind::kItems: {
      std::string text;
      for (const TelemetryItem& item : effect.items) {
        text += (text.empty() ? "" : ", ") + ItemText(item.key, item.value);
      }
      return text;
    }
    case EffectKind::kRecordingRuns:
      return "rec_time counts";
    case EffectKind::kRecordingStands:
      return "rec_time stands still";
    case EffectKind::kShotTaken:
      return "shots_left falls";
    case EffectKind::kHistogramOn:
      return "histogram records come";
    case EffectKind::kHistogramOff:
      return "no histogram records come";
  }
  return "";
}

EffectWatch::EffectWatch(CommandEffect effect, TelemetryRecord before)
    : effect_(std::move(effect)), text_(std::move(before)), shots_before_(ShotsLeft(text_)) {}

bool EffectWatch::Take(const TelemetryRecord& record) {
  switch (record.type) {
    case RecordType::kText:
      return TakeText(record);
    case RecordType::kStatus:
      return ++status_without_histogram_ >= kStatusRecordsWhenOff &&
             effect_.kind == EffectKind::kHistogramOff;
    case RecordType::kHistogram:
      status_without_histogram_ = 0;
      return effect_.kind == EffectKind::kHistogramOn;
    case RecordType::kUnknown:
      break;
  }
  return false;
}

bool EffectWatch::TakeText(const TelemetryRecord& record) {
  const bool same_time = ItemValue(record, "rec_time") == ItemValue(text_, "rec_time");
  text_ = record;
  if (effect_.kind == EffectKind::kItems) {
    return std::ranges::all_of(effect_.items, [&record](const TelemetryItem& item) {
      return ItemValue(record, item.key) == item.value;
    });
  }
  if (effect_.kind == EffectKind::kShotTaken) {
    const auto shots = ShotsLeft(record);
    return shots && shots_before_ && *shots < *shots_before_;
  }
  return TakeRecordTime(same_time);
}

bool EffectWatch::TakeRecordTime(bool is_same) {
  const std::string_view time = ItemValue(text_, "rec_time").value_or("");
  texts_with_same_time_ = is_same ? texts_with_same_time_ + 1 : 0;
  if (effect_.kind == EffectKind::kRecordingRuns) {
    return !is_same && !time.empty() && time != kNoTime;
  }
  return effect_.kind == EffectKind::kRecordingStands &&
         texts_with_same_time_ >= kSameTimesWhenStanding;
}

std::string EffectWatch::Latest() const {
  const auto latest = [this](std::string_view key) {
    return ItemText(key, ItemValue(text_, key).value_or("(absent)"));
  };
  switch (effect_.kind) {
    case EffectKind::kItems: {
      std::string text;
      for (const TelemetryItem& item : effect_.items) {
        text += (text.empty() ? "" : ", ") + latest(item.key);
      }
      return text;
    }
    case EffectKind::kRecordingRuns:
    case EffectKind::kRecordingStands:
      return latest("rec_time");
    case EffectKind::kShotTaken:
      return latest("shots_left");
    case EffectKind::kHistogramOn:
      return "no histogram records";
    case EffectKind::kHistogramOff:
      return "histogram records";
    case EffectKind::kNone:
      break;
  }
  return "";
}

}  // namespace kestrelbridge::tools
