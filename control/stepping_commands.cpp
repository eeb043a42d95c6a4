#include "control/stepping_commands.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <iterator>
#include <string_view>

#include "base/log.h"
#include "control/camera_commands.h"
#include "state/camera_state.h"
#include "state/vocabulary.h"

namespace kestrelbridge {
namespace {

struct Stepping {
  const char* log_name;
  const char* (*current_word)(const CameraState& state);
  Steps steps;
  void (*send)(const char* word, const CameraState& state);
};

void SendShutter(const char* word, const CameraState& /*state*/) {
  Log("new shutter value = %s\n", word);
  SetShutter(word);
}

void SendWhiteBalance(const char* word, const CameraState& state) {
  // The text ends in a newline, which shows as an empty line in the log; the number that the camera
  // gets is read up to it.
  char temperature[50];  // the largest float has 39 digits
  std::snprintf(temperature, sizeof temperature, "%1.0f\n",
                static_cast<double>(state.wb_temp_set == 0 ? state.wb_temp : state.wb_temp_set));
  SetWhiteBalance(word, temperature);
}

// clang-format off
constexpr Stepping kImageModeStepping = {
    "image mode", [](const CameraState& state) { return state.image_mode; }, kImageModeSteps,
    [](const char* word, const CameraState&) { SetVideoMode(word); }};
constexpr Stepping kShutterStepping = {
    "shutter value", [](const CameraState& state) { return state.shutter_set; }, kShutterSteps,
    SendShutter};
constexpr Stepping kIsoStepping = {
    "ISO", [](const CameraState& state) { return state.iso_set; }, kIsoSteps,
    [](const char* word, const CameraState&) { SetIso(word); }};
constexpr Stepping kEvStepping = {
    "EV", [](const CameraState& state) { return state.ev; }, kEvSteps,
    [](const char* word, const CameraState&) { SetEv(word); }};
constexpr Stepping kWhiteBalanceStepping = {
    "WB", [](const CameraState& state) { return state.wb; }, kWhiteBalanceSteps,
    SendWhiteBalance};
constexpr Stepping kColorStepping = {
    "color mode", [](const CameraState& state) { return state.color_mode; }, kColorModeSteps,
    [](const char* word, const CameraState&) { SetColor(word); }};
// clang-format on

std::size_t IndexOf(std::string_view word, Steps steps) {
  const auto found = std::ranges::find(steps, word);
  return found == steps.end() ? 0 : static_cast<std::size_t>(std::distance(steps.begin(), found));
}

// Goes `distance` steps on, where steps.size() - 1 is one back.
void StepBy(const Stepping& stepping, std::size_t distance, const char* direction) {
  Log("Camera set %s %s\n", direction, stepping.log_name);
  const CameraState state = SnapshotCameraState();
  const std::size_t position = IndexOf(stepping.current_word(state), stepping.steps);
  const std::size_t chosen = (position + distance) % stepping.steps.size();
  stepping.send(stepping.steps[chosen].data(), state);
}

void Next(const Stepping& stepping) { StepBy(stepping, 1, "next"); }
void Prev(const Stepping& stepping) { StepBy(stepping, stepping.steps.size() - 1, "prev"); }

}  // namespace

void NextImageMode() { Next(kImageModeStepping); }
void PrevImageMode() { Prev(kImageModeStepping); }
void NextShutter() { Next(kShutterStepping); }
void PrevShutter() { Prev(kShutterStepping); }
void NextIso() { Next(kIsoStepping); }
void PrevIso() { Prev(kIsoStepping); }
void NextEv() { Next(kEvStepping); }
void PrevEv() { Prev(kEvStepping); }
void NextWhiteBalance() { Next(kWhiteBalanceStepping); }
void PrevWhiteBalance() { Prev(kWhiteBalanceStepping); }
void NextColor() { Next(kColorStepping); }
void PrevColor() { Prev(kColorStepping); }

}  // namespace kestrelbridge
