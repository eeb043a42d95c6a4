// The last ten minutes of the link, a sample a second, and what happened on it. Time is passed in.
// One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include "tools/common/metrics_reading.h"

namespace kestrelbridge::console {

struct LinkSample {
  std::int64_t time_ms = 0;  // since 1970
  double mbit_s = 0;         // of video, as it came into the ring
  double fps = 0;
  std::optional<std::uint64_t> corrupted;     // units, since the daemon's start
  std::optional<std::uint64_t> kernel_drops;  // datagrams of the camera, since then
  std::optional<double> longest_gap_ms;       // between two units
  bool camera_up = false;
  bool phone_up = false;
};

// What came into the ring since the last sample.
class UnitMeter {
 public:
  void Count(std::size_t length, std::uint64_t arrival_us);
  // Fills the sample's figures for a span of that length, and begins anew.
  void Read(LinkSample& sample, double seconds);

 private:
  std::uint64_t units_ = 0;
  std::uint64_t bytes_ = 0;
  std::uint64_t last_arrival_us_ = 0;
  std::optional<std::uint64_t> longest_gap_us_;
};

// What the daemon's counters add to a sample.
void TakeCounters(LinkSample& sample, const std::optional<tools::MetricsReading>& metrics);

class LinkLog {
 public:
  static constexpr std::size_t kMostSamples = 600;
  static constexpr std::size_t kMostEvents = 200;

  // Returns the message that tells all viewers of it.
  std::string Add(const LinkSample& sample);
  std::string AddEvent(std::int64_t time_ms, std::string_view text);

  // For those who join.
  [[nodiscard]] std::string HistoryJson() const;
  [[nodiscard]] std::string EventsJson() const;

 private:
  struct Event {
    std::int64_t time_ms;
    std::string text;
  };
  std::deque<LinkSample> samples_;
  std::deque<Event> events_;
};

}  // namespace kestrelbridge::console
