#include "tools/common/metrics_reading.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>

#include "base/run_paths.h"
#include "tools/common/tool_error.h"

namespace kestrelbridge::tools {
namespace {

using std::chrono::duration;
using std::chrono::seconds;
using std::chrono::system_clock;

constexpr std::string_view kPrefix = "kestrelbridge_";
constexpr std::string_view kStartTime = "kestrelbridge_start_time_seconds";
constexpr seconds kStaleAfter{3};  // it is written once a second

std::optional<std::uint64_t> ParseNumber(std::string_view text) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size() ? std::optional(value)
                                                                  : std::nullopt;
}

// name{label} value, or name value.
std::optional<Metric> ParseLine(std::string_view line) {
  const auto blank = line.rfind(' ');
  const auto value = ParseNumber(blank == line.npos ? line : line.substr(blank + 1));
  if (!value) {
    return std::nullopt;
  }
  const std::string_view series = line.substr(0, blank == line.npos ? 0 : blank);
  const auto brace = series.find('{');
  Metric metric;
  metric.name = series.substr(0, brace);
  metric.value = *value;
  if (brace != series.npos && series.back() == '}') {
    metric.label = series.substr(brace + 1, series.size() - brace - 2);
  }
  return metric;
}

// The file's text and time, of one and the same file: it may be replaced at any moment. Nothing,
// with errno set, when it cannot be read.
std::optional<std::string> ReadWhole(int file, MetricsReading::Time& written) {
  struct stat status {};
  fstat(file, &status);
  written = MetricsReading::Time(std::chrono::duration_cast<system_clock::duration>(
      seconds(status.st_mtim.tv_sec) + std::chrono::nanoseconds(status.st_mtim.tv_nsec)));
  std::string text;
  std::array<char, 4096> part{};
  ssize_t length = 0;
  while ((length = read(file, part.data(), part.size())) > 0) {
    text.append(part.data(), static_cast<std::size_t>(length));
  }
  return length == 0 ? std::optional(std::move(text)) : std::nullopt;
}

}  // namespace

std::optional<std::uint64_t> MetricsReading::Value(std::string_view name,
                                                   std::string_view label) const {
  const auto found = std::ranges::find_if(
      metrics, [&](const Metric& metric) { return metric.name == name && metric.label == label; });
  return found == metrics.end() ? std::nullopt : std::optional(found->value);
}

std::vector<Metric> ParseMetrics(std::string_view text) {
  constexpr std::string_view kType = "# TYPE ";
  constexpr std::string_view kCounter = " counter";
  std::vector<Metric> metrics;
  std::string_view counter_name;  // of the latest TYPE line
  while (!text.empty()) {
    const auto end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == text.npos ? text.size() : end + 1);
    if (line.starts_with(kType) && line.ends_with(kCounter)) {
      line.remove_prefix(kType.size());
      counter_name = line.substr(0, line.size() - std::min(line.size(), kCounter.size()));
    } else if (!line.starts_with('#')) {
      if (auto metric = ParseLine(line)) {
        metric->is_counter = metric->name == counter_name;
        metrics.push_back(*std::move(metric));
      }
    }
  }
  return metrics;
}

MetricsReading ReadMetrics(const std::string& path) {
  MetricsReading reading;
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const auto text = file == -1 ? std::nullopt : ReadWhole(file, reading.written);
  if (!text) {
    throw ToolError("cannot read " + path + ": " + std::strerror(errno) +
                    (errno == ENOENT ? "; the daemon writes it once a second while it runs" : ""));
  }
  close(file);
  reading.metrics = ParseMetrics(*text);
  if (std::ranges::none_of(reading.metrics,
                           [](const Metric& metric) { return metric.name.starts_with(kPrefix); })) {
    throw ToolError(path + " is no metrics file of the daemon: nothing in it is called " +
                    std::string(kPrefix) + "...");
  }
  return reading;
}

std::optional<MetricsReading> FreshMetrics() {
  try {
    MetricsReading reading = ReadMetrics(kMetricsPath);
    if (!Staleness(reading, MetricsReading::Time::clock::now())) {
      return reading;
    }
  } catch (const ToolError&) {
    // No file is an answer, too.
  }
  return std::nullopt;
}

std::optional<double> Rate(const Metric& metric, const MetricsReading& now,
                           const std::optional<MetricsReading>& before) {
  if (!metric.is_counter || !before || now.Value(kStartTime) != before->Value(kStartTime)) {
    return std::nullopt;
  }
  const auto earlier = before->Value(metric.name, metric.label);
  const double elapsed_s = duration<double>(now.written - before->written).count();
  if (!earlier || metric.value < *earlier || elapsed_s <= 0) {
    return std::nullopt;
  }
  return static_cast<double>(metric.value - *earlier) / elapsed_s;
}

std::optional<std::string> Staleness(const MetricsReading& reading, MetricsReading::Time clock) {
  const auto age = std::chrono::floor<seconds>(clock - reading.written);
  if (age < kStaleAfter) {
    return std::nullopt;
  }
  const std::time_t written = system_clock::to_time_t(reading.written);
  std::tm local{};
  localtime_r(&written, &local);
  char since[40];
  std::strftime(since, sizeof since, "%Y-%m-%d %H:%M:%S", &local);
  return "not written for " + std::to_string(age.count()) + " s, since " + since +
         ": the daemon has ended, or cannot write there";
}

}  // namespace kestrelbridge::tools
