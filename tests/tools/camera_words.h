// The simulated camera's state, as the main application would read it.
#pragma once

#include <string>
#include <string_view>

#include "camera/frame_scanner.h"
#include "state/pushes.h"
#include "tools/camera_pushes.h"

namespace kestrelbridge::test {

// Sends the model's pushes through the daemon's decoding; returns telemetry's text.
inline std::string WordsOf(const CameraModel& model) {
  ClearCameraState();
  std::uint16_t sequence = 0;
  ScanCommandFrames(BuildPushes(model, Histogram{}, sequence));
  return TelemetryText();
}

inline std::string WordOf(const CameraModel& model, std::string_view key) {
  return Item(WordsOf(model), key);
}

}  // namespace kestrelbridge::test
