// The camera's state as the main application gets it: three records, each one datagram.
//
//   record      sent                     content
//   text        once a second            07, then key=value pairs, each ending in a comma; no NUL
//   status      every 200 ms             06 00, 26 bytes of which three are the camera's
//   histogram   every 200 ms, while a    06 01, 64 values
//               histogram is current
//
// Nothing is sent before the camera has sent command data.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "state/camera_state.h"

namespace kestrelbridge {

// How a record opens: the text with one byte, the others with two, little-endian.
inline constexpr std::uint8_t kTextRecordType = 0x07;
inline constexpr std::uint16_t kStatusRecordType = 0x0006;
inline constexpr std::uint16_t kHistogramRecordType = 0x0106;

inline constexpr std::size_t kTextRecordSize = 1300;  // buffer; the longest text has some 600 bytes
inline constexpr std::size_t kStatusRecordSize = 28;
inline constexpr std::size_t kHistogramRecordSize = 2 + kHistogramSize;

struct TextRecord {
  std::array<std::uint8_t, kTextRecordSize> buffer{};
  std::size_t length = 0;
};
using StatusRecord = std::array<std::uint8_t, kStatusRecordSize>;
using HistogramRecord = std::array<std::uint8_t, kHistogramRecordSize>;

// The records as bytes. Nothing is allocated. Any thread.
[[nodiscard]] TextRecord BuildTextRecord(const CameraState& state);
[[nodiscard]] StatusRecord BuildStatusRecord(const CameraState& state);
[[nodiscard]] HistogramRecord BuildHistogramRecord(const CameraState& state);

// Sends the text record. Returns the bytes sent, or -1; without a destination, the length of the
// text (the record without its first byte). Telemetry thread.
int SendTelemetryText(const CameraState& state);

// Forgets the current histogram's time when it was seen_ms and is more than 3000 ms old at now_ms.
// seen_ms (0: none) must have been read from the record before the clock was, so that a push
// between the two can't look like an age of 49 days; a push that came after seen_ms was read is
// left alone. Telemetry thread.
void ExpireHistogram(std::uint32_t seen_ms, std::uint32_t now_ms);

// Body of the telemetry thread: the records, and the watchdogs of both endpoints of the main
// application. Never returns.
void* TelemetryThread(void* unused);

}  // namespace kestrelbridge
