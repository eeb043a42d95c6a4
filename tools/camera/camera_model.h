// The simulated camera's state: what its pushes tell, in the codes and numbers of the pushes, and
// the little that they don't. Pure functions; time is passed in.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "camera/packet_format.h"
#include "state/push_layout.h"
#include "tools/common/unit_schedule.h"

namespace kestrelbridge::tools {

struct CameraModel {
  // Payloads of the pushes, sent as they are.
  std::array<std::uint8_t, kStatusPushLength - kFrameOverhead> status{};
  std::array<std::uint8_t, kSettingsPushLength - kFrameOverhead> settings{};
  std::array<std::uint8_t, kBatteryPushLength - kFrameOverhead> battery{};

  bool histogram_on = true;
  std::optional<SteadyTime> recorded_until;  // while it records: the end of the last whole second
};

// The field of this name (state/push_layout.h), or nothing.
const PushField* FindField(std::string_view name);

// One field by its name. Throw std::logic_error for a name that no field has.
std::uint32_t Get(const CameraModel& model, std::string_view name);
void Set(CameraModel& model, std::string_view name, std::uint32_t value);

// Exposure settings, and what the camera makes of them at once: the sensitivity and the exposure
// time that are in use, automatic exposure.
void SetIsoCode(CameraModel& model, std::uint8_t code);
void SetShutterValue(CameraModel& model, std::uint32_t value);
void SetImageModeCode(CameraModel& model, std::uint8_t code);

// The card. A recording goes on when it is started again; a shot needs room for one.
void StartRecording(CameraModel& model, SteadyTime now);
void StopRecording(CameraModel& model);
[[nodiscard]] bool PutShotOnCard(CameraModel& model);

// Erases the card. `start` tells how large it is: the usual size, or whatever was free then when
// that is more.
void FormatCard(CameraModel& model, const CameraModel& start);

// What is recorded up to now goes onto the card. True when that filled it and so ended the
// recording.
bool PassTime(CameraModel& model, SteadyTime now);

// The card, empty.
inline constexpr std::uint32_t kMegabytesPerShot = 10;
inline constexpr std::uint32_t kMegabytesPerSecond = 12;  // of a recording
inline constexpr std::uint32_t kCardMegabytes = 59'640;
inline constexpr std::uint32_t kCardShots = kCardMegabytes / kMegabytesPerShot;
inline constexpr std::uint32_t kCardSeconds = kCardMegabytes / kMegabytesPerSecond;

}  // namespace kestrelbridge::tools
