#include "share/latest_records.h"

#include "base/byte_order.h"
#include "state/telemetry.h"

namespace kestrelbridge::share {
namespace {

constexpr std::chrono::seconds kLongestAge{3};

bool IsBinary(std::span<const std::uint8_t> record, std::uint16_t type, std::size_t size) {
  return record.size() == size && LoadLe16(record, 0) == type;
}

}  // namespace

RecordKind KindOf(std::span<const std::uint8_t> record) {
  if (!record.empty() && record[0] == kTextRecordType) {
    return RecordKind::kText;
  }
  if (IsBinary(record, kStatusRecordType, kStatusRecordSize)) {
    return RecordKind::kStatus;
  }
  if (IsBinary(record, kHistogramRecordType, kHistogramRecordSize)) {
    return RecordKind::kHistogram;
  }
  return RecordKind::kOther;
}

void Keep(LatestRecords& latest, std::span<const std::uint8_t> record, Clock::time_point now) {
  const RecordKind kind = KindOf(record);
  if (kind == RecordKind::kOther) {
    return;
  }
  LatestRecords::Entry& entry = latest.entries[static_cast<std::size_t>(kind)];
  entry.bytes.assign(record.begin(), record.end());
  entry.time = now;
}

std::span<const std::uint8_t> Fresh(const LatestRecords::Entry& entry, Clock::time_point now) {
  if (now - entry.time > kLongestAge) {
    return {};
  }
  return entry.bytes;
}

}  // namespace kestrelbridge::share
