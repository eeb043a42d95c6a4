// The daemon's metrics file, read and compared with an earlier reading. Pure but for the file.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrelbridge::tools {

struct Metric {
  std::string name;
  std::string label;        // name and value, as in link="camera"; empty: none
  bool is_counter = false;  // else a gauge
  std::uint64_t value = 0;
};

struct MetricsReading {
  using Time = std::chrono::system_clock::time_point;
  std::vector<Metric> metrics;  // in the order of the file
  Time written;

  // The metric's value; nothing when there is none of that name and label.
  [[nodiscard]] std::optional<std::uint64_t> Value(std::string_view name,
                                                   std::string_view label = {}) const;
};

// Prometheus text with at most one label a line and whole numbers. Other lines are passed over.
std::vector<Metric> ParseMetrics(std::string_view text);

// Throws ToolError when the file cannot be read.
MetricsReading ReadMetrics(const std::string& path);

// What the daemon of this box writes; nothing where none has written for some seconds.
std::optional<MetricsReading> FreshMetrics();

// A second's worth of the counter between the two readings; nothing where that cannot be told: for
// a gauge, without an earlier reading, or when another daemon wrote it.
std::optional<double> Rate(const Metric& metric, const MetricsReading& now,
                           const std::optional<MetricsReading>& before);

// Nothing while the file is fresh; else since when it is not, and why that may be.
std::optional<std::string> Staleness(const MetricsReading& reading, MetricsReading::Time clock);

}  // namespace kestrelbridge::tools
