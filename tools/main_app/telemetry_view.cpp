#include "tools/main_app/telemetry_view.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <span>
#include <string_view>
#include <utility>

#include "tools/common/foreign_text.h"
#include "tools/common/host_port.h"
#include "tools/common/text_layout.h"
#include "tools/main_app/telemetry_lines.h"

namespace kestrelbridge::tools {
namespace {

using std::chrono::duration;
using std::chrono::seconds;

constexpr seconds kMarkPeriod{1};
constexpr std::size_t kMarks = 6;  // rates over five seconds
constexpr seconds kSilence{2};     // a second's text record, and a second's grace
constexpr seconds kHistogramLife{1};

// One line of a column: the group's title where a group begins, and the item.
struct Cell {
  const char* title;
  std::string_view key;
};
constexpr Cell kLeftColumn[] = {
    {"camera", "camera_model"},
    {"", "camera_mode"},
    {"", "camera_detected"},
    {"battery", "battery_level"},
    {"", "battery_charging"},
    {"", "voltage"},
    {"card", "sd"},
    {"", "shots_left"},
    {"", "rec_time"},
    {"", "rec_time_left"},
    {"colour", "color_mode"},
    {"", "wb"},
    {"", "wb_temp"},
};
constexpr Cell kRightColumn[] = {
    {"exposure", "image_mode"}, {"", "ae"},        {"", "shutter"},     {"", "shutter_set"},
    {"", "aperture"},           {"", "iso"},       {"", "iso_set"},     {"", "ev"},
    {"picture", "format"},      {"", "framerate"}, {"", "resolution"},  {"", "ratio"},
    {"", "shot_mode"},          {"", "video_std"}, {"", "antiflicker"},
};

struct ColumnWidths {
  std::size_t title;
  std::size_t key;
  std::size_t value;
};
constexpr ColumnWidths kLeftWidths = {.title = 8, .key = 17, .value = 16};
constexpr ColumnWidths kRightWidths = {.title = 9, .key = 12, .value = 16};
constexpr std::size_t kMostOtherItems = 8;

// Cut or filled with blanks to that width.
std::string Padded(std::string_view text, std::size_t width) {
  std::string padded = PrintableText(text.substr(0, width));
  padded.resize(width, ' ');
  return padded;
}

std::string CellText(const Cell& cell, const ColumnWidths& widths, const TelemetryRecord& text) {
  return Padded(cell.title, widths.title) + Padded(cell.key.substr(0, widths.key - 1), widths.key) +
         Padded(ItemValue(text, cell.key).value_or("-"), widths.value);
}

bool IsShown(std::string_view key) {
  return std::ranges::count(kLeftColumn, key, &Cell::key) != 0 ||
         std::ranges::count(kRightColumn, key, &Cell::key) != 0;
}

// Eight heights of one character, after none; and what comes near to them in plain characters.
constexpr const char* kBlocks[] = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr const char* kPlainBlocks[] = {" ", ".", ".", ":", ":", "+", "+", "#", "#"};
constexpr unsigned kLevelsPerRow = std::size(kBlocks) - 1;
constexpr unsigned kHistogramRows = 4;

// As the first of the variables that is set says.
bool HasUtf8() {
  for (const char* const variable : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    if (const char* const value = std::getenv(variable); value != nullptr && value[0] != '\0') {
      const std::string_view locale = value;
      return locale.find("UTF-8") != locale.npos || locale.find("utf8") != locale.npos;
    }
  }
  return false;
}

// The largest value fills the height, and none but 0 is invisible.
unsigned Level(unsigned value, unsigned largest) {
  return largest == 0 ? 0 : (value * kLevelsPerRow * kHistogramRows + largest - 1) / largest;
}

std::string HistogramRow(std::span<const std::uint8_t> values, unsigned largest,
                         unsigned rows_below) {
  const auto& blocks = HasUtf8() ? kBlocks : kPlainBlocks;
  std::string row;
  for (const std::uint8_t value : values) {
    const unsigned level = Level(value, largest);
    const unsigned below = rows_below * kLevelsPerRow;
    row += blocks[level <= below ? 0 : std::min(level - below, kLevelsPerRow)];
  }
  return row;
}

// Neighbours become one, the larger of them, until all fit.
std::vector<std::uint8_t> Narrowed(std::span<const std::uint8_t> values, std::size_t width) {
  const std::size_t group = (values.size() + width - 1) / width;
  std::vector<std::uint8_t> narrowed;
  for (; !values.empty(); values = values.subspan(std::min(group, values.size()))) {
    narrowed.push_back(*std::ranges::max_element(values.first(std::min(group, values.size()))));
  }
  return narrowed;
}

}  // namespace

TelemetryView::TelemetryView(Time start)
    : last_record_(start), last_histogram_(start), marks_{{.time = start}} {}

void TelemetryView::Take(const TelemetryRecord& record, UdpPeer sender, Time now) {
  ++counts_[static_cast<std::size_t>(record.type)];
  if (record.type == RecordType::kUnknown) {
    return;  // from anybody
  }
  sender_ = sender;
  last_record_ = now;
  if (record.type == RecordType::kText) {
    text_ = record;
  } else if (record.type == RecordType::kStatus) {
    status_ = record;
  } else {
    histogram_ = record;
    last_histogram_ = now;
  }
}

std::string TelemetryView::Title(Time now) const {
  std::string title = "kestrelbridge telemetry from ";
  title += sender_.address == 0 ? "nobody yet" : SenderText(sender_);
  if (now - last_record_ >= kSilence) {
    title += ", silent for " +
             std::to_string(std::chrono::duration_cast<seconds>(now - last_record_).count()) + " s";
  }
  return title;
}

std::string TelemetryView::Rates(Time now) {
  const Mark& first = marks_.front();
  const double elapsed_s = std::max(duration<double>(now - first.time).count(), 1.0);
  std::string text = "a second: ";
  for (std::size_t type = 0; type < kRecordTypeCount; ++type) {
    char rate[80];
    std::snprintf(rate, sizeof rate, "  %s %.1f",
                  RecordTypeName(static_cast<RecordType>(type)).data(),
                  static_cast<double>(counts_[type] - first.counts[type]) / elapsed_s);
    text += rate;
  }
  if (now - marks_.back().time >= kMarkPeriod) {
    marks_.push_back({.time = now, .counts = counts_});
    if (marks_.size() > kMarks) {
      marks_.pop_front();
    }
  }
  return text;
}

void TelemetryView::AppendItems(std::vector<std::string>& lines, std::size_t width) const {
  std::vector<Cell> left(std::begin(kLeftColumn), std::end(kLeftColumn));
  for (const TelemetryItem& item : text_.items) {
    if (left.size() < std::size(kLeftColumn) + kMostOtherItems && !IsShown(item.key)) {
      left.push_back({left.size() == std::size(kLeftColumn) ? "other" : "", item.key});
    }
  }
  std::span<const Cell> right(kRightColumn);
  if (width < kUsualWidth) {
    left.insert(left.begin() + std::size(kLeftColumn), right.begin(), right.end());
    right = {};
  }
  ColumnWidths widths = kLeftWidths;
  widths.value = std::min(widths.value, width - widths.title - widths.key);
  for (std::size_t row = 0; row < std::max(left.size(), right.size()); ++row) {
    const std::string line = row < left.size()
                                 ? CellText(left[row], widths, text_)
                                 : std::string(widths.title + widths.key + widths.value, ' ');
    lines.push_back(line + (row < right.size() ? CellText(right[row], kRightWidths, text_) : ""));
  }
}

void TelemetryView::AppendHistogram(std::vector<std::string>& lines, Time now,
                                    std::size_t width) const {
  if (histogram_.type != RecordType::kHistogram || now - last_histogram_ >= kHistogramLife) {
    lines.push_back("histogram none");
    return;
  }
  constexpr std::size_t kBesideIt = 14;
  const auto values = Narrowed(histogram_.histogram, width - kBesideIt);
  const unsigned largest = *std::ranges::max_element(values);
  for (unsigned row = 0; row < kHistogramRows; ++row) {
    const std::string scale = row == 0 ? std::to_string(largest) : "";
    lines.push_back(Padded(row == 0 ? "histogram" : "", 10) + Padded(scale, 4) +
                    HistogramRow(values, largest, kHistogramRows - 1 - row));
  }
}

std::vector<std::string> TelemetryView::Lines(Time now, std::size_t width) {
  std::vector<std::string> lines;
  const auto append = [&](const std::string& text) {
    for (std::string& line : BrokenLines(text, width)) {
      lines.push_back(std::move(line));
    }
  };
  append(Title(now));
  append(Rates(now));
  lines.emplace_back("");
  AppendItems(lines, width);
  char status[80];
  std::snprintf(status, sizeof status, "status  byte 0: 0x%02X,  byte 31: 0x%02X,  byte 2: 0x%02X",
                unsigned{status_.status_byte_0}, unsigned{status_.status_byte_31},
                unsigned{status_.status_byte_2});
  lines.emplace_back("");
  append(status);
  AppendHistogram(lines, now, width);
  return lines;
}

}  // namespace kestrelbridge::tools
