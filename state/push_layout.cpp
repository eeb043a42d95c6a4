#include "state/push_layout.h"

#include <array>

#include "base/byte_order.h"
#include "state/format.h"

namespace kestrelbridge {
namespace {

using State = CameraState;

template <typename Record, typename Value>
Value ValueTypeOf(Value Record::*);
// Type of the record's field that a pointer to member names.
template <auto member>
using FieldType = decltype(ValueTypeOf(member));

// Destinations: what becomes of a field's value.

template <auto number>
void Number(const PushField& /*field*/, std::uint32_t value, State& state) {
  state.*number = static_cast<FieldType<number>>(value);
}

template <auto flag>
void Flag(const PushField& /*field*/, std::uint32_t value, State& state) {
  state.*flag = value != 0 ? 1 : 0;
}

template <auto code, auto text>
void Word(const PushField& field, std::uint32_t value, State& state) {
  state.*code = static_cast<std::uint8_t>(value);
  SetText(state.*text, ReportedWord(*field.setting, state.*code));
}

// As Word, for a setting that has only the lowest bit of its byte.
template <auto code, auto text>
void LowestBitWord(const PushField& field, std::uint32_t value, State& state) {
  Word<code, text>(field, value & 1, state);
}

// A number and the text that `format` makes of it.
template <auto number, auto text, auto format>
void Formatted(const PushField& /*field*/, std::uint32_t value, State& state) {
  state.*number = static_cast<FieldType<number>>(value);
  const std::span<char> text_field(state.*text);
  format(state.*number, text_field);
}

void Ev(const PushField& field, std::uint32_t value, State& state) {
  const auto code = static_cast<std::uint8_t>(value);
  state.ev_value = static_cast<float>(EvOfCode(code));
  SetText(state.ev, ReportedWord(*field.setting, code));
}

void Temperature(const PushField& /*field*/, std::uint32_t value, State& state) {
  state.wb_temp_code = static_cast<std::uint8_t>(value);
  state.wb_temp = static_cast<float>(value * 100);
}

// Columns: name, offset, width, words, destination.
// clang-format off
constexpr auto kStatusFields = std::to_array<PushField>({
    {"status_byte_0",   0, 1, nullptr,         Number<&State::status_byte_0>},
    {"status_byte_31", 31, 1, nullptr,         Number<&State::status_byte_31>},
    {"status_byte_2",   2, 1, nullptr,         Number<&State::status_byte_2>},
    {"camera_model",   33, 1, &kCameraModel,   Word<&State::camera_model_code, &State::camera_model>},
    {"camera_mode",     4, 1, &kCameraMode,    Word<&State::camera_mode_code, &State::camera_mode>},
    {"sd",              9, 4, nullptr,         Formatted<&State::sd_free_mb, &State::sd, FormatFreeSpace>},
    {"shots_left",     13, 4, nullptr,         Number<&State::shots_left>},
    {"rec_time_left",  17, 4, nullptr,         Formatted<&State::rec_time_left_s, &State::rec_time_left, FormatDuration>},
    {"rec_time",       29, 2, nullptr,         Formatted<&State::rec_time_s, &State::rec_time, FormatDuration>},
});

constexpr auto kSettingsFields = std::to_array<PushField>({
    {"resolution",     13, 1, &kResolution,    Word<&State::resolution_code, &State::resolution>},
    {"framerate",      14, 1, &kFramerate,     Word<&State::framerate_code, &State::framerate>},
    {"wb",             23, 1, &kWhiteBalance,  Word<&State::wb_code, &State::wb>},
    {"wb_temp",        24, 1, nullptr,         Temperature},
    {"shot_mode",      12, 1, &kShotMode,      Word<&State::shot_mode_code, &State::shot_mode>},
    {"aperture",       38, 2, nullptr,         Formatted<&State::aperture_raw, &State::aperture, FormatAperture>},
    {"iso",            43, 2, nullptr,         Number<&State::iso>},
    {"iso_set",         5, 1, &kIso,           Word<&State::iso_set_code, &State::iso_set>},
    {"ae",             56, 1, nullptr,         Flag<&State::ae>},
    {"ev",              6, 1, &kEv,            Ev},
    {"color_mode",     31, 1, &kColorMode,     Word<&State::color_mode_code, &State::color_mode>},
    {"image_mode",     20, 1, &kImageMode,     Word<&State::image_mode_code, &State::image_mode>},
    {"ratio",          10, 1, &kAspectRatio,   Word<&State::ratio_code, &State::ratio>},
    {"video_std",      55, 1, &kVideoStandard, LowestBitWord<&State::video_std_code, &State::video_std>},
    {"antiflicker",    32, 1, &kAntiFlicker,   Word<&State::antiflicker_code, &State::antiflicker>},
    {"shutter_set",     2, 3, nullptr,         Formatted<&State::shutter_set_raw, &State::shutter_set, FormatShutter>},
    {"shutter",        40, 3, nullptr,         Formatted<&State::shutter_raw, &State::shutter, FormatShutter>},
});

constexpr auto kBatteryFields = std::to_array<PushField>({
    {"battery_level",     0, 1, nullptr, Number<&State::battery_level>},
    {"battery_charging", 39, 1, nullptr, Flag<&State::battery_charging>},
});
// clang-format on

// Every field lies in the payload, and no two share a byte.
constexpr bool IsSound(std::span<const PushField> fields, std::size_t frame_length) {
  std::array<bool, kMaxFrameLength> taken{};
  for (const PushField& field : fields) {
    if (field.width < 1 || field.width > 4 ||
        field.offset + field.width > frame_length - kFrameOverhead) {
      return false;
    }
    for (std::size_t i = field.offset; i < field.offset + field.width; ++i) {
      if (taken[i]) {
        return false;
      }
      taken[i] = true;
    }
  }
  return true;
}
static_assert(IsSound(kStatusFields, kStatusPushLength));
static_assert(IsSound(kSettingsFields, kSettingsPushLength));
static_assert(IsSound(kBatteryFields, kBatteryPushLength));

}  // namespace

constinit const std::span<const PushField> kStatusPushFields = kStatusFields;
constinit const std::span<const PushField> kSettingsPushFields = kSettingsFields;
constinit const std::span<const PushField> kBatteryPushFields = kBatteryFields;

std::uint32_t LoadField(std::span<const std::uint8_t> payload, const PushField& field) {
  switch (field.width) {
    case 1:
      return payload[field.offset];
    case 2:
      return LoadLe16(payload, field.offset);
    case 3:
      return LoadLe24(payload, field.offset);
    default:
      return LoadLe32(payload, field.offset);
  }
}

void WriteField(std::span<std::uint8_t> payload, const PushField& field, std::uint32_t value) {
  for (std::size_t i = 0; i < field.width; ++i) {
    payload[field.offset + i] = static_cast<std::uint8_t>(value >> 8 * i & 0xFF);
  }
}

}  // namespace kestrelbridge
