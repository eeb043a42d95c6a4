#include "console/link_log.h"

#include <algorithm>
#include <cstdio>

#include "tools/common/foreign_text.h"

namespace kestrelbridge::console {
namespace {

using tools::JsonString;

constexpr double kMicroseconds = 1e6;

std::string Rounded(double value, int digits) {
  char text[40];
  std::snprintf(text, sizeof text, "%.*f", digits, value);
  return text;
}

std::string CountOrNull(const std::optional<std::uint64_t>& count) {
  return count ? std::to_string(*count) : "null";
}

// The members of a sample, without braces.
std::string SampleMembers(const LinkSample& sample) {
  return R"("time_ms":)" + std::to_string(sample.time_ms) + R"(,"mbit_s":)" +
         Rounded(sample.mbit_s, 3) + R"(,"fps":)" + Rounded(sample.fps, 1) + R"(,"corrupted":)" +
         CountOrNull(sample.corrupted) + R"(,"kernel_drops":)" + CountOrNull(sample.kernel_drops) +
         R"(,"unit_gap_ms_max":)" +
         (sample.longest_gap_ms ? Rounded(*sample.longest_gap_ms, 1) : "null") +
         R"(,"camera_up":)" + (sample.camera_up ? "true" : "false") + R"(,"phone_up":)" +
         (sample.phone_up ? "true" : "false");
}

std::string EventMembers(std::int64_t time_ms, std::string_view text) {
  return R"("time_ms":)" + std::to_string(time_ms) + R"(,"text":)" + JsonString(text);
}

}  // namespace

void UnitMeter::Count(std::size_t length, std::uint64_t arrival_us) {
  ++units_;
  bytes_ += length;
  if (last_arrival_us_ != 0 && arrival_us >= last_arrival_us_) {
    longest_gap_us_ = std::max(longest_gap_us_.value_or(0), arrival_us - last_arrival_us_);
  }
  last_arrival_us_ = arrival_us;
}

void UnitMeter::Read(LinkSample& sample, double seconds) {
  sample.mbit_s = static_cast<double>(bytes_) * 8 / kMicroseconds / seconds;
  sample.fps = static_cast<double>(units_) / seconds;
  if (longest_gap_us_) {
    sample.longest_gap_ms = static_cast<double>(*longest_gap_us_) / 1000;
  }
  units_ = bytes_ = 0;
  longest_gap_us_.reset();
}

void TakeCounters(LinkSample& sample, const std::optional<tools::MetricsReading>& metrics) {
  if (!metrics) {
    return;
  }
  sample.corrupted = metrics->Value("kestrelbridge_units_total", R"(outcome="corrupted")");
  sample.kernel_drops = metrics->Value("kestrelbridge_kernel_drops_total", R"(link="camera")");
  const auto is_up = [&metrics](std::string_view link) {
    return metrics->Value("kestrelbridge_link_up", link).value_or(0) != 0;
  };
  sample.camera_up = is_up(R"(link="camera")");
  sample.phone_up = is_up(R"(link="phone")");
}

std::string LinkLog::Add(const LinkSample& sample) {
  samples_.push_back(sample);
  if (samples_.size() > kMostSamples) {
    samples_.pop_front();
  }
  return R"({"type":"link",)" + SampleMembers(sample) + "}";
}

std::string LinkLog::AddEvent(std::int64_t time_ms, std::string_view text) {
  events_.push_back({.time_ms = time_ms, .text = std::string(text)});
  if (events_.size() > kMostEvents) {
    events_.pop_front();
  }
  return R"({"type":"event",)" + EventMembers(time_ms, text) + "}";
}

std::string LinkLog::HistoryJson() const {
  std::string json = R"({"type":"history","samples":[)";
  for (const LinkSample& sample : samples_) {
    json += (json.ends_with('[') ? "{" : ",{") + SampleMembers(sample) + "}";
  }
  return json + "]}";
}

std::string LinkLog::EventsJson() const {
  std::string json = R"({"type":"events","list":[)";
  for (const Event& event : events_) {
    json += (json.ends_with('[') ? "{" : ",{") + EventMembers(event.time_ms, event.text) + "}";
  }
  return json + "]}";
}

}  // namespace kestrelbridge::console
