// The camera's status pushes, field by field: what decoding reads, and what anybody who plays the
// camera writes.
//
// A push is a command frame (camera/packet_format.h) that its length alone tells from others; the
// status push also has flags, a command set and a command id of its own. Numbers are little-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "camera/packet_format.h"
#include "state/camera_state.h"
#include "state/vocabulary.h"

namespace kestrelbridge {

// Length of the whole frame.
inline constexpr std::size_t kBatteryPushLength = 53;
inline constexpr std::size_t kHistogramPushLength = 77;  // the payload is the 64 values
inline constexpr std::size_t kStatusPushLength = 80;
inline constexpr std::size_t kSettingsPushLength = 115;
static_assert(kHistogramPushLength == kFrameOverhead + kHistogramSize);

inline constexpr std::uint8_t kStatusPushFlags = 0x00;
inline constexpr std::uint8_t kStatusPushCommandSet = 0x02;
inline constexpr std::uint8_t kStatusPushCommandId = 0x80;

struct PushField {
  std::string_view name;   // as in telemetry, where it is shown
  std::size_t offset;      // in the payload
  std::size_t width;       // 1 to 4 bytes
  const Setting* setting;  // the words of a field that holds a code, else none
  // Where the value goes: its place in the record, and the text made of it.
  void (*store)(const PushField& field, std::uint32_t value, CameraState& state);
};

// The fields of the pushes, in the order in which they are stored.
extern const std::span<const PushField> kStatusPushFields;
extern const std::span<const PushField> kSettingsPushFields;
extern const std::span<const PushField> kBatteryPushFields;

// Reads and writes one field. Precondition: the payload is that of the field's push. Any thread.
std::uint32_t LoadField(std::span<const std::uint8_t> payload, const PushField& field);
void WriteField(std::span<std::uint8_t> payload, const PushField& field, std::uint32_t value);

}  // namespace kestrelbridge
