// Telemetry as the main application gets it: each datagram one record, taken apart.
//
//   record      first bytes   length      content
//   text        07            any         key=value, ... the last item ends in a comma, too
//   status      06 00         28          three of the camera's bytes, at 9, 10 and 11
//   histogram   06 01         66          64 values
//
// Anything else is unknown, whoever sent it. Pure functions.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "state/camera_state.h"

namespace kestrelbridge::tools {

enum class RecordType { kText, kStatus, kHistogram, kUnknown };
inline constexpr std::size_t kRecordTypeCount = 4;

// "text", "status", "histogram" or "unknown".
std::string_view RecordTypeName(RecordType type);

struct TelemetryItem {
  std::string key;
  std::string value;
  bool operator==(const TelemetryItem&) const = default;
};

// Only the fields of its type are filled.
struct TelemetryRecord {
  RecordType type = RecordType::kUnknown;

  std::vector<TelemetryItem> items;  // text: each key once, with its first value, in their order

  // Status: these bytes of the camera's status push.
  std::uint8_t status_byte_0 = 0;
  std::uint8_t status_byte_31 = 0;
  std::uint8_t status_byte_2 = 0;

  std::array<std::uint8_t, kHistogramSize> histogram{};

  std::vector<std::uint8_t> bytes;  // unknown: all of it
};

TelemetryRecord ParseTelemetryRecord(std::span<const std::uint8_t> datagram);

// The value of the item with that key; nothing when there is none.
std::optional<std::string_view> ItemValue(const TelemetryRecord& record, std::string_view key);

}  // namespace kestrelbridge::tools
