#include "tools/stats/metrics_view.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <string_view>

#include "tools/common/foreign_text.h"
#include "tools/common/json_text.h"

namespace kestrelbridge::tools {
namespace {

using std::chrono::duration;
using std::chrono::seconds;

constexpr std::string_view kPrefix = "kestrelbridge_";
constexpr std::string_view kSuffix = "_total";
constexpr std::string_view kStartTime = "kestrelbridge_start_time_seconds";
constexpr std::string_view kLinkUp = "kestrelbridge_link_up";

// A label's value without its quotes.
std::string_view LabelValue(std::string_view label) {
  const auto quote = label.find('"');
  return quote == label.npos ? label : label.substr(quote + 1, label.size() - quote - 2);
}

// Without what all counters' names have.
std::string ShortName(std::string_view name) {
  if (name.starts_with(kPrefix)) {
    name.remove_prefix(kPrefix.size());
  }
  if (name.ends_with(kSuffix)) {
    name.remove_suffix(kSuffix.size());
  }
  std::string words(name);
  std::ranges::replace(words, '_', ' ');
  return words;
}

std::string DurationText(seconds length) {
  char text[40];
  const auto count = static_cast<long long>(length.count());
  std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", count / 3600, count / 60 % 60, count % 60);
  return text;
}

std::string Title(const MetricsReading& now, MetricsReading::Time clock) {
  std::string title = "kestrelbridge";
  if (const auto stale = Staleness(now, clock)) {
    return title + ": " + *stale;
  }
  if (const auto start = now.Value(kStartTime)) {
    title +=
        ", up for " + DurationText(std::chrono::floor<seconds>(now.written.time_since_epoch()) -
                                   seconds(static_cast<std::int64_t>(*start)));
  }
  std::string links;
  for (const Metric& metric : now.metrics) {
    if (metric.name == kLinkUp && metric.value != 0) {
      links += " " + std::string(LabelValue(metric.label));
    }
  }
  return title + "; links up:" + (links.empty() ? " none" : PrintableText(links));
}

constexpr std::size_t kNameWidth = 43;  // of a counter, with its label
constexpr std::size_t kTotalWidth = 20;
constexpr std::size_t kRateWidth = 14;
constexpr std::size_t kLineWidth = kNameWidth + kTotalWidth + kRateWidth;

std::string Right(const std::string& text, std::size_t width) {
  return std::string(width - std::min(width, text.size()), ' ') + text;
}

void AppendCounter(std::vector<std::string>& lines, const Metric& metric,
                   const std::optional<double>& rate, std::size_t width) {
  std::string name = PrintableText(ShortName(metric.name));
  name.resize(std::max<std::size_t>(name.size(), width < kLineWidth ? 0 : 26), ' ');
  name += " " + PrintableText(LabelValue(metric.label));
  std::array<char, 40> shown_rate{};
  std::snprintf(shown_rate.data(), shown_rate.size(), "%.1f", rate.value_or(0));
  const std::string numbers = Right(std::to_string(metric.value), kTotalWidth) +
                              Right(rate ? shown_rate.data() : "-", kRateWidth);
  if (width < kLineWidth) {
    lines.push_back(name);
    lines.push_back(numbers);
  } else {
    name.resize(std::max(name.size(), kNameWidth), ' ');
    lines.push_back(name + numbers);
  }
}

// ,"link":"camera" for link="camera".
std::string JsonLabel(std::string_view label) {
  const auto equals = label.find('=');
  if (equals == label.npos) {
    return "";
  }
  return "," + JsonString(label.substr(0, equals)) + ":" + JsonString(LabelValue(label));
}

}  // namespace

std::vector<std::string> MetricsLines(const MetricsReading& now,
                                      const std::optional<MetricsReading>& before,
                                      MetricsReading::Time clock, bool hide_zeros,
                                      std::size_t width) {
  std::vector<std::string> lines = BrokenLines(Title(now, clock), width);
  const std::size_t name_width = width < kLineWidth ? 0 : kNameWidth;
  lines.push_back(std::string(name_width, ' ') + Right("total", kTotalWidth) +
                  Right("a second", kRateWidth));
  int hidden = 0;
  for (const Metric& metric : now.metrics) {
    if (!metric.is_counter) {
      continue;
    }
    if (hide_zeros && metric.value == 0) {
      ++hidden;
    } else {
      AppendCounter(lines, metric, Rate(metric, now, before), width);
    }
  }
  if (hidden != 0) {
    lines.push_back(std::to_string(hidden) + " more are 0");
  }
  return lines;
}

std::string MetricsJson(const MetricsReading& now, const std::optional<MetricsReading>& before) {
  char time[40];
  std::snprintf(time, sizeof time, "%.3f",
                duration<double>(now.written.time_since_epoch()).count());
  std::string json = "{" + JsonTime() + R"(,"written":)" + time + R"(,"metrics":[)";
  for (const Metric& metric : now.metrics) {
    json += json.ends_with('[') ? "" : ",";
    json += R"({"name":)" + JsonString(metric.name) + JsonLabel(metric.label) + R"(,"value":)" +
            std::to_string(metric.value);
    if (const auto rate = Rate(metric, now, before)) {
      char text[40];
      std::snprintf(text, sizeof text, "%.3f", *rate);
      json += std::string(R"(,"per_second":)") + text;
    }
    json += "}";
  }
  return json + "]}";
}

}  // namespace kestrelbridge::tools
