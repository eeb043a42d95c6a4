// The newest telemetry record of each kind, for consumers that connect between two of them.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <span>
#include <vector>

#include "share/share_counters.h"

namespace kestrelbridge::share {

using Clock = std::chrono::steady_clock;

// Told apart by their first bytes and lengths (state/telemetry.h). Pure function.
RecordKind KindOf(std::span<const std::uint8_t> record);

struct LatestRecords {
  struct Entry {
    std::vector<std::uint8_t> bytes;
    Clock::time_point time;
  };
  std::array<Entry, kRecordKinds - 1> entries;  // one for each kind but kOther
};

// Keeps the record, if it is of a known kind.
void Keep(LatestRecords& latest, std::span<const std::uint8_t> record, Clock::time_point now);

// The record of that kind, or nothing: a record of more than three seconds ago tells of a camera
// that may not be there any more.
std::span<const std::uint8_t> Fresh(const LatestRecords::Entry& entry, Clock::time_point now);

}  // namespace kestrelbridge::share
