// Medians, spreads, and the table that shows them.
#pragma once

#include <string>
#include <vector>

namespace kestrelbridge::bench {

// The value below which this share (0 to 1) of the samples lies. Precondition: there are samples.
double Quantile(std::vector<double> samples, double share);
double Median(const std::vector<double>& samples);

// Samples of all repetitions, and the figures of each. Microseconds.
struct Latencies {
  std::vector<double> p50, p99, all;
  void Add(const std::vector<double>& samples);
};

// One measured thing: ours and the other's, a pair a repetition, measured one right after the
// other.
struct Comparison {
  std::string what;
  std::string other;  // empty: nothing to compare with
  std::string unit;
  int decimals = 2;
  std::vector<double> ours;
  std::vector<double> others;
  // The aim; nothing: shown only.
  enum class Aim { kNone, kRatioAtMost, kRatioAtLeast, kOursBelow } aim = Aim::kNone;
  double limit = 0;
};

struct Row {
  std::vector<std::string> cells;
};

// what | kestrelbridge | against | ratio | spread of the ratio | aim | met?
Row MakeRow(const Comparison& comparison);

// Of latencies: a ratio that is to be at most `limit`; 0: shown only.
Row CompareLatencies(const std::string& what, const std::string& other,
                     const std::vector<double>& ours, const std::vector<double>& others,
                     double limit);

// A markdown table, its columns aligned for the terminal.
std::string FormatTable(const std::vector<Row>& rows);

// How samples are distributed, a line for each range, as code block. Samples in microseconds.
std::string FormatDistribution(const std::string& title, const std::vector<double>& samples_us);

// "1.23", with that many decimals.
std::string FormatNumber(double number, int decimals);

}  // namespace kestrelbridge::bench
