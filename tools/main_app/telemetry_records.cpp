#include "tools/main_app/telemetry_records.h"

#include <algorithm>
#include <cstddef>
#include <unordered_set>

#include "base/byte_order.h"
#include "state/telemetry.h"

namespace kestrelbridge::tools {
namespace {

constexpr std::size_t kBinaryTypeSize = 2;
constexpr std::size_t kStatusByte0 = 9;
constexpr std::size_t kStatusByte31 = 10;
constexpr std::size_t kStatusByte2 = 11;

// Empty when the text is anything but items.
std::vector<TelemetryItem> ParseItems(std::string_view text) {
  std::vector<TelemetryItem> items;
  std::unordered_set<std::string_view> keys;
  while (!text.empty()) {
    const std::size_t comma = text.find(',');
    const std::string_view item = text.substr(0, comma);
    const std::size_t equals = item.find('=');
    if (comma == std::string_view::npos || equals == std::string_view::npos || equals == 0) {
      return {};
    }
    const std::string_view key = item.substr(0, equals);
    if (keys.insert(key).second) {
      items.push_back({.key = std::string(key), .value = std::string(item.substr(equals + 1))});
    }
    text.remove_prefix(comma + 1);
  }
  return items;
}

bool IsBinary(std::span<const std::uint8_t> datagram, std::uint16_t type, std::size_t size) {
  return datagram.size() == size && LoadLe16(datagram, 0) == type;
}

TelemetryRecord Unknown(std::span<const std::uint8_t> datagram) {
  TelemetryRecord record;
  record.bytes.assign(datagram.begin(), datagram.end());
  return record;
}

TelemetryRecord ParseText(std::span<const std::uint8_t> datagram) {
  const auto text = datagram.subspan(1);
  TelemetryRecord record;
  record.items = ParseItems({reinterpret_cast<const char*>(text.data()), text.size()});
  if (record.items.empty()) {
    return Unknown(datagram);
  }
  record.type = RecordType::kText;
  return record;
}

}  // namespace

std::string_view RecordTypeName(RecordType type) {
  switch (type) {
    case RecordType::kText:
      return "text";
    case RecordType::kStatus:
      return "status";
    case RecordType::kHistogram:
      return "histogram";
    case RecordType::kUnknown:
      break;
  }
  return "unknown";
}

TelemetryRecord ParseTelemetryRecord(std::span<const std::uint8_t> datagram) {
  if (!datagram.empty() && datagram[0] == kTextRecordType) {
    return ParseText(datagram);
  }
  TelemetryRecord record;
  if (IsBinary(datagram, kStatusRecordType, kStatusRecordSize)) {
    record.type = RecordType::kStatus;
    record.status_byte_0 = datagram[kStatusByte0];
    record.status_byte_31 = datagram[kStatusByte31];
    record.status_byte_2 = datagram[kStatusByte2];
    return record;
  }
  if (IsBinary(datagram, kHistogramRecordType, kHistogramRecordSize)) {
    record.type = RecordType::kHistogram;
    std::ranges::copy(datagram.subspan(kBinaryTypeSize), record.histogram.begin());
    return record;
  }
  return Unknown(datagram);
}

std::optional<std::string_view> ItemValue(const TelemetryRecord& record, std::string_view key) {
  const auto item = std::ranges::find(record.items, key, &TelemetryItem::key);
  if (item == record.items.end()) {
    return std::nullopt;
  }
  return item->value;
}

}  // namespace kestrelbridge::tools
