// Pushes as the camera sends them, and telemetry's text taken apart. Lengths and offsets are
// written out here and in the tests, not taken from the daemon's tables.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/camera_datagrams.h"

namespace kestrelbridge::test {

inline constexpr std::size_t kBattery = 53;
inline constexpr std::size_t kHistogram = 77;
inline constexpr std::size_t kStatus = 80;
inline constexpr std::size_t kSettings = 115;

// A frame of `length` bytes (13 to 255) with the flags, command set and id of the status push, its
// payload all `fill`, check sums right.
Bytes Push(std::size_t length, std::uint8_t fill = 0);

// One of zeros, but for these bytes of the payload.
Bytes PushWith(std::size_t length, const std::vector<std::pair<std::size_t, Bytes>>& fields);

// Sets bytes of the payload and renews the check sums.
void Put(Bytes& push, std::size_t payload_offset, const Bytes& bytes);

// Renews both check sums after a change.
void Seal(Bytes& frame);

// The text record for the process's record, without its first byte.
std::string TelemetryText();

// The value of the first "key=value" item with that key in the text; "(absent)" when there is none.
std::string Item(std::string_view text, std::string_view key);

}  // namespace kestrelbridge::test
