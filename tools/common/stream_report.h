// What the stand-ins tell of a stream: a line a second while it runs, counters at its end.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

#include "tools/common/unit_schedule.h"

namespace kestrelbridge::tools {

// When a line is due, and the bit rate for it. Time is passed in.
class ReportClock {
 public:
  explicit ReportClock(SteadyTime start) : start_(start), last_(start) {}

  [[nodiscard]] SteadyTime NextReport() const { return last_ + std::chrono::seconds{1}; }

  // True when a second is over, or more; the figures below are those of this line then. `bytes`:
  // since the start.
  [[nodiscard]] bool IsDue(std::uint64_t bytes, SteadyTime now);

  [[nodiscard]] double seconds() const;  // since the start
  [[nodiscard]] double megabits_per_second() const { return megabits_per_second_; }

 private:
  SteadyTime start_;
  SteadyTime last_;
  std::uint64_t last_bytes_ = 0;
  double megabits_per_second_ = 0;
};

// As printf wants it.
constexpr unsigned long long Ull(std::uint64_t value) { return value; }

// "key: value"; scripts look for the keys.
template <typename Counters>
struct SummaryLine {
  const char* key;
  std::uint64_t Counters::*counter;
};

template <typename Counters>
void PrintSummaryLines(std::FILE* file, const auto& lines, const Counters& counters) {
  for (const SummaryLine<Counters>& line : lines) {
    std::fprintf(file, "%s: %llu\n", line.key, Ull(counters.*line.counter));
  }
}

// "key":value of each, with a comma before it.
template <typename Counters>
void AppendJsonMembers(std::string& json, const auto& lines, const Counters& counters) {
  for (const SummaryLine<Counters>& line : lines) {
    json += std::string(",\"") + line.key + "\":" + std::to_string(counters.*line.counter);
  }
}

}  // namespace kestrelbridge::tools
