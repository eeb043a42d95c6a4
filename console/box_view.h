// The state of the box as the page is told it: takes what the threads have brought, and makes the
// messages of it. Time is passed in. One thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "console/box_facts.h"
#include "console/box_feed.h"
#include "console/link_log.h"
#include "console/unit_history.h"

namespace kestrelbridge::console {

struct Now {
  std::chrono::steady_clock::time_point steady;
  std::int64_t unix_ms = 0;
};

class BoxView {
 public:
  BoxView(std::string version, bool view_only)
      : version_(std::move(version)), view_only_(view_only) {}

  void TakeRecord(const tools::TelemetryRecord& record, Now now);
  void TakeFeed(const BoxNews& news, Now now);
  void TakeRing(const RingNews& news, Now now);
  // After the units have gone into the history, and once a second.
  void Judge(const UnitHistory& history, Now now);
  // Once a second: the sample of the link, and telemetry again.
  void Tick(Now now);

  // For all who are there; they are gone then.
  std::vector<std::string> TakeMessages() { return std::exchange(messages_, {}); }

  // For one who joins, in the order in which he gets them.
  [[nodiscard]] std::vector<std::string> Greeting(Now now) const;

  [[nodiscard]] const BoxFacts& facts() const { return facts_; }

 private:
  using SteadyTime = std::chrono::steady_clock::time_point;

  void TakeText(const tools::TelemetryRecord& record, Now now);
  void TellTelemetry(Now now, bool even_if_same);
  void TellProblems();
  void TellEvent(Now now, std::string_view text);
  void NoteLinks(const LinkSample& sample, Now now);
  [[nodiscard]] std::string HelloJson(Now now) const;
  [[nodiscard]] std::string TelemetryJson(Now now) const;

  std::string version_;
  bool view_only_;
  BoxFacts facts_;
  UnitMeter meter_;
  LinkLog log_;
  std::optional<tools::MetricsReading> metrics_;
  std::optional<std::uint64_t> daemon_start_;  // since 1970, of the last one that was seen
  std::optional<LinkSample> last_sample_;
  tools::TelemetryRecord histogram_;
  SteadyTime last_record_, last_histogram_, last_unit_, last_rec_time_change_, last_tick_,
      last_told_;
  bool had_daemon_ = false;
  std::uint64_t ring_restarts_ = 0;
  std::map<std::string, std::string, std::less<>> told_problems_;  // text by id
  std::string told_allowed_;
  std::string told_telemetry_;  // without its time
  std::vector<std::string> messages_;
};

}  // namespace kestrelbridge::console
