#include "figures.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdio>

namespace kestrelbridge::bench {
namespace {

// A spread wider than this share of the median says more about the machine than about us.
constexpr double kNoisySpread = 0.20;

constexpr std::array<const char*, 7> kHeadings = {"what",   "kestrelbridge", "against", "ratio",
                                                  "spread", "aim",           "result"};

std::string FormatFigure(double figure, const Comparison& comparison) {
  return FormatNumber(figure, comparison.decimals) + " " + comparison.unit;
}

std::string FormatAim(const Comparison& comparison) {
  switch (comparison.aim) {
    case Comparison::Aim::kRatioAtMost:
      return "at most " + FormatNumber(comparison.limit, 2);
    case Comparison::Aim::kRatioAtLeast:
      return "at least " + FormatNumber(comparison.limit, 2);
    case Comparison::Aim::kOursBelow:
      return "below " + FormatNumber(comparison.limit, 0) + " " + comparison.unit;
    case Comparison::Aim::kNone:
      break;
  }
  return "-";
}

std::string FormatResult(const Comparison& comparison, double ratio, double ours, bool noisy) {
  bool met = true;
  switch (comparison.aim) {
    case Comparison::Aim::kRatioAtMost:
      met = ratio <= comparison.limit;
      break;
    case Comparison::Aim::kRatioAtLeast:
      met = ratio >= comparison.limit;
      break;
    case Comparison::Aim::kOursBelow:
      met = ours < comparison.limit;
      break;
    case Comparison::Aim::kNone:
      return noisy ? "noisy" : "-";
  }
  return std::string(met ? "met" : "MISSED") + (noisy ? ", noisy" : "");
}

}  // namespace

double Quantile(std::vector<double> samples, double share) {
  std::ranges::sort(samples);
  const double position = share * static_cast<double>(samples.size() - 1);
  const auto below = static_cast<std::size_t>(position);
  const std::size_t above = std::min(below + 1, samples.size() - 1);
  return std::lerp(samples[below], samples[above], position - std::floor(position));
}

double Median(const std::vector<double>& samples) { return Quantile(samples, 0.5); }

std::string FormatNumber(double number, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, number);
  return text;
}

void Latencies::Add(const std::vector<double>& samples) {
  p50.push_back(Median(samples));
  p99.push_back(Quantile(samples, 0.99));
  all.insert(all.end(), samples.begin(), samples.end());
}

Row MakeRow(const Comparison& comparison) {
  const double ours = Median(comparison.ours);
  // Without anybody to compare with, the spread is that of the figure itself.
  std::vector<double> ratios = comparison.ours;
  for (std::size_t i = 0; i < comparison.others.size(); ++i) {
    ratios[i] /= comparison.others[i];
  }
  const double ratio = Median(ratios);
  const auto [lowest, highest] = std::ranges::minmax(ratios);
  const bool noisy = highest - lowest > kNoisySpread * ratio;
  const bool compared = !comparison.others.empty();
  return {{comparison.what, FormatFigure(ours, comparison),
           compared ? FormatFigure(Median(comparison.others), comparison) + ", " + comparison.other
                    : "-",
           compared ? FormatNumber(ratio, 2) : "-",
           FormatNumber(lowest, 2) + " to " + FormatNumber(highest, 2), FormatAim(comparison),
           FormatResult(comparison, ratio, ours, noisy)}};
}

Row CompareLatencies(const std::string& what, const std::string& other,
                     const std::vector<double>& ours, const std::vector<double>& others,
                     double limit) {
  return MakeRow({.what = what,
                  .other = other,
                  .unit = "us",
                  .decimals = 1,
                  .ours = ours,
                  .others = others,
                  .aim = limit == 0 ? Comparison::Aim::kNone : Comparison::Aim::kRatioAtMost,
                  .limit = limit});
}

std::string FormatTable(const std::vector<Row>& rows) {
  std::vector<Row> all;
  all.push_back({{kHeadings.begin(), kHeadings.end()}});
  all.insert(all.end(), rows.begin(), rows.end());
  std::array<std::size_t, kHeadings.size()> widths{};
  for (const Row& row : all) {
    for (std::size_t column = 0; column < widths.size(); ++column) {
      widths[column] = std::max(widths[column], row.cells[column].size());
    }
  }
  std::string table;
  for (std::size_t line = 0; line < all.size(); ++line) {
    for (std::size_t column = 0; column < widths.size(); ++column) {
      std::string cell = all[line].cells[column];
      cell.resize(widths[column], ' ');
      table += "| " + cell + " ";
    }
    table += "|\n";
    if (line == 0) {
      for (const std::size_t width : widths) {
        table += "|" + std::string(width + 2, '-');
      }
      table += "|\n";
    }
  }
  return table;
}

std::string FormatDistribution(const std::string& title, const std::vector<double>& samples_us) {
  constexpr std::array<double, 13> kLimitsUs = {5,   10,  15,  20,   30,   50, 75,
                                                100, 150, 300, 1000, 3000, 1e9};
  constexpr double kBarLength = 50;
  std::string text = "    " + title + ", " + std::to_string(samples_us.size()) + " samples\n\n";
  double lower = 0;
  for (const double upper : kLimitsUs) {
    const auto count = std::ranges::count_if(
        samples_us, [=](double sample) { return sample >= lower && sample < upper; });
    const double share = static_cast<double>(count) / static_cast<double>(samples_us.size());
    if (count != 0) {
      char line[64];
      std::snprintf(line, sizeof line, "    %5.0f us and more  %6.2f %%  ", lower, share * 100);
      text +=
          line + std::string(static_cast<std::size_t>(std::ceil(share * kBarLength)), '#') + "\n";
    }
    lower = upper;
  }
  for (const double share : {0.5, 0.9, 0.99, 0.999}) {
    text += "    p" + FormatNumber(share * 100, share > 0.99 ? 1 : 0) + " " +
            FormatNumber(Quantile(samples_us, share), 1) + " us";
  }
  return text + "\n";
}

}  // namespace kestrelbridge::bench
