// How telemetry shows that the camera has obeyed a command. Pure.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/main_app/telemetry_records.h"

namespace kestrelbridge::tools {

enum class EffectKind {
  kNone,  // nothing that telemetry tells
  kItems,
  kRecordingRuns,    // rec_time counts
  kRecordingStands,  // rec_time stays the same
  kShotTaken,        // shots_left falls
  kHistogramOn,      // histogram records come
  kHistogramOff,
};

struct CommandEffect {
  EffectKind kind = EffectKind::kNone;
  std::vector<TelemetryItem> items;  // kItems: all of these, in one text record
};

// "iso_set=400", "rec_time counts": what is waited for. Empty for kNone.
std::string EffectText(const CommandEffect& effect);

class EffectWatch {
 public:
  // `before`: the last text record before the command.
  EffectWatch(CommandEffect effect, TelemetryRecord before);

  // Looks at the next record; true when the effect has been seen.
  [[nodiscard]] bool Take(const TelemetryRecord& record);

  // What telemetry shows of it by now: "iso_set=200".
  [[nodiscard]] std::string Latest() const;

 private:
  bool TakeText(const TelemetryRecord& record);
  bool TakeRecordTime(bool is_same);

  CommandEffect effect_;
  TelemetryRecord text_;                       // the latest
  std::optional<unsigned long> shots_before_;  // the command
  int texts_with_same_time_ = 0;
  int status_without_histogram_ = 0;
};

}  // namespace kestrelbridge::tools
