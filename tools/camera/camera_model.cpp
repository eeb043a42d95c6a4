#include "tools/camera/camera_model.h"

#include <algorithm>
#include <charconv>
#include <span>
#include <stdexcept>
#include <string>

#include "state/vocabulary.h"

namespace kestrelbridge::tools {
namespace {

constexpr std::uint8_t kManualCode = 4;  // exposure mode

// A field and the payload, constant or not, that holds it.
template <typename Byte>
struct PlacedField {
  const PushField* field = nullptr;
  std::span<Byte> payload;
};

template <typename Byte, typename Model>
PlacedField<Byte> Find(Model& model, std::string_view name) {
  const PlacedField<Byte> nowhere;
  const auto find_in = [name](std::span<const PushField> fields, std::span<Byte> payload) {
    const auto field = std::ranges::find(fields, name, &PushField::name);
    return PlacedField<Byte>{field == fields.end() ? nullptr : &*field, payload};
  };
  for (const PlacedField<Byte>& place :
       {find_in(kStatusPushFields, model.status), find_in(kSettingsPushFields, model.settings),
        find_in(kBatteryPushFields, model.battery)}) {
    if (place.field != nullptr) {
      return place;
    }
  }
  return nowhere;
}

template <typename Byte, typename Model>
PlacedField<Byte> MustFind(Model& model, std::string_view name) {
  const auto place = Find<Byte>(model, name);
  if (place.field == nullptr) {
    throw std::logic_error("no push has a field " + std::string(name));
  }
  return place;
}

// Takes so much, or all that is left.
void Take(CameraModel& model, std::string_view name, std::uint32_t amount) {
  const std::uint32_t left = Get(model, name);
  Set(model, name, left - std::min(left, amount));
}

}  // namespace

const PushField* FindField(std::string_view name) {
  const CameraModel any;
  return Find<const std::uint8_t>(any, name).field;
}

std::uint32_t Get(const CameraModel& model, std::string_view name) {
  const auto place = MustFind<const std::uint8_t>(model, name);
  return LoadField(place.payload, *place.field);
}

void Set(CameraModel& model, std::string_view name, std::uint32_t value) {
  const auto place = MustFind<std::uint8_t>(model, name);
  WriteField(place.payload, *place.field, value);
}

void SetIsoCode(CameraModel& model, std::uint8_t code) {
  Set(model, "iso_set", code);
  const std::string_view word = ReportedWord(kIso, code);
  std::uint16_t in_use = 0;
  if (std::from_chars(word.data(), word.data() + word.size(), in_use).ec == std::errc{}) {
    Set(model, "iso", in_use);  // automatic goes on from where it is
  }
}

void SetShutterValue(CameraModel& model, std::uint32_t value) {
  Set(model, "shutter_set", value);
  Set(model, "shutter", value);
}

void SetImageModeCode(CameraModel& model, std::uint8_t code) {
  Set(model, "image_mode", code);
  Set(model, "ae", code == kManualCode ? 0 : 1);
}

void StartRecording(CameraModel& model, SteadyTime now) {
  if (!model.recorded_until) {
    model.recorded_until = now;
    Set(model, "rec_time", 0);
  }
}

void StopRecording(CameraModel& model) {
  model.recorded_until.reset();
  Set(model, "rec_time", 0);
}

bool PutShotOnCard(CameraModel& model) {
  if (Get(model, "shots_left") == 0) {
    return false;
  }
  Take(model, "shots_left", 1);
  Take(model, "sd", kMegabytesPerShot);
  return true;
}

void FormatCard(CameraModel& model, const CameraModel& start) {
  StopRecording(model);
  Set(model, "sd", std::max(Get(start, "sd"), kCardMegabytes));
  Set(model, "shots_left", std::max(Get(start, "shots_left"), kCardShots));
  Set(model, "rec_time_left", std::max(Get(start, "rec_time_left"), kCardSeconds));
}

bool PassTime(CameraModel& model, SteadyTime now) {
  if (!model.recorded_until || now < *model.recorded_until) {
    return false;
  }
  const auto whole = std::chrono::floor<std::chrono::seconds>(now - *model.recorded_until);
  *model.recorded_until += whole;
  const auto seconds = static_cast<std::uint32_t>(whole.count());
  constexpr std::uint32_t kLongest = 0xFFFF;
  Set(model, "rec_time", std::min(Get(model, "rec_time") + seconds, kLongest));
  Take(model, "rec_time_left", seconds);
  Take(model, "sd", seconds * kMegabytesPerSecond);
  if (Get(model, "rec_time_left") != 0) {
    return false;
  }
  StopRecording(model);
  return true;
}

}  // namespace kestrelbridge::tools
