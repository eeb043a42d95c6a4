#include "tools/command_effect.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kestrelbridge {
namespace {

TelemetryRecord Text(std::vector<TelemetryItem> items) {
  TelemetryRecord record;
  record.type = RecordType::kText;
  record.items = std::move(items);
  return record;
}

TelemetryRecord Of(RecordType type) {
  TelemetryRecord record;
  record.type = type;
  return record;
}

std::vector<TelemetryRecord> Texts(const std::string& key, const std::vector<std::string>& values) {
  std::vector<TelemetryRecord> records;
  for (const std::string& value : values) {
    records.push_back(Text({{key, value}}));
  }
  return records;
}

std::vector<TelemetryRecord> Types(const std::vector<RecordType>& types) {
  std::vector<TelemetryRecord> records;
  for (const RecordType type : types) {
    records.push_back(Of(type));
  }
  return records;
}

constexpr int kNever = -1;

// Which of the records behind the first, which was there before the command, shows the effect.
int SeenAt(const CommandEffect& effect, const std::vector<TelemetryRecord>& records) {
  EffectWatch watch(effect, records.front());
  for (std::size_t i = 1; i < records.size(); ++i) {
    if (watch.Take(records[i])) {
      return static_cast<int>(i);
    }
  }
  return kNever;
}

TEST(CommandEffect, IsSeenWhenTelemetryShowsItAndNotBefore) {
  const CommandEffect iso = {EffectKind::kItems, {{"iso_set", "400"}}};
  const CommandEffect runs = {EffectKind::kRecordingRuns, {}};
  const CommandEffect stands = {EffectKind::kRecordingStands, {}};
  const CommandEffect shot = {EffectKind::kShotTaken, {}};
  constexpr auto kStatus = RecordType::kStatus;
  constexpr auto kHistogram = RecordType::kHistogram;
  const struct {
    const char* name;
    CommandEffect effect;
    std::vector<TelemetryRecord> records;
    int seen_at;
  } rows[] = {
      {"set", iso, Texts("iso_set", {"100", "100", "400"}), 2},
      {"set before", iso, Texts("iso_set", {"400", "400"}), 1},
      {"set by nobody", iso, Texts("iso_set", {"400", "4000", "", "auto"}), kNever},
      {"told of by nobody", iso, Texts("iso", {"400", "400"}), kNever},
      {"recording", runs, Texts("rec_time", {"00:00:00", "00:00:00", "00:00:01"}), 2},
      {"on", runs, Texts("rec_time", {"00:09:59", "00:10:00"}), 1},
      {"back to none", runs, Texts("rec_time", {"00:00:07", "00:00:00", "00:00:00"}), kNever},
      {"without a time", runs, Texts("rec_time", {"00:00:07", "", ""}), kNever},
      {"standing", stands, Texts("rec_time", {"00:00:07", "00:00:07", "00:00:07"}), 2},
      {"not yet", stands, Texts("rec_time", {"00:01", "00:01", "00:02", "00:02", "00:02"}), 4},
      {"going on", stands, Texts("rec_time", {"00:01", "00:02", "00:02", "00:03"}), kNever},
      {"shot", shot, Texts("shots_left", {"10", "10", "9"}), 2},
      {"no shot", shot, Texts("shots_left", {"9", "9", "10"}), kNever},
      {"no number", shot, Texts("shots_left", {"", "", "x"}), kNever},
      {"on, too",
       {EffectKind::kHistogramOn, {}},
       Types({RecordType::kText, kStatus, kHistogram}),
       2},
      {"off",
       {EffectKind::kHistogramOff, {}},
       Types({kStatus, kStatus, kHistogram, kStatus, kHistogram, kStatus, kStatus, kStatus}),
       7},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(SeenAt(row.effect, row.records), row.seen_at) << row.name;
  }
}

TEST(CommandEffect, ASetOfItemsIsSeenInOneRecordOnly) {
  const CommandEffect effect = {EffectKind::kItems, {{"wb", "custom"}, {"wb_temp", "5600"}}};
  EffectWatch watch(effect, Text({}));
  EXPECT_EQ(watch.Latest(), "wb=(absent), wb_temp=(absent)");
  EXPECT_FALSE(watch.Take(Text({{"wb", "custom"}, {"wb_temp", "5000"}})));
  EXPECT_FALSE(watch.Take(Text({{"wb", "auto"}, {"wb_temp", "5600"}})));
  EXPECT_EQ(watch.Latest(), "wb=auto, wb_temp=5600");
  EXPECT_TRUE(watch.Take(Text({{"wb_temp", "5600"}, {"wb", "custom"}})));
}

}  // namespace
}  // namespace kestrelbridge
