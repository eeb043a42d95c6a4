#include "state/status_decoding.h"

#include <algorithm>
#include <cstddef>

#include "base/byte_order.h"
#include "base/counters.h"
#include "base/log.h"
#include "camera/crc.h"
#include "camera/packet_format.h"
#include "net/clock.h"
#include "state/camera_state.h"
#include "state/push_layout.h"

namespace kestrelbridge {
namespace {

constexpr std::size_t kMinStatusFrame = 10;

bool FrameIsSound(std::span<const std::uint8_t> frame) {
  if (frame.size() < kMinStatusFrame || frame[0] != kFrameStart ||
      frame[kFrameLengthOffset] != frame.size()) {
    return false;
  }
  const std::size_t covered = frame.size() - kFrameCrc16Size;
  if (FrameCrc16(frame.first(covered)) != LoadLe16(frame, covered)) {
    Log("CRC16 wrong\n");
    return false;
  }
  if (FrameCrc8(frame.first(kFrameCrc8Offset)) != frame[kFrameCrc8Offset]) {
    Log("CRC8 wrong\n");
    return false;
  }
  return true;
}

// Other frames of the camera are as long as a status push.
bool IsStatusPush(std::span<const std::uint8_t> frame) {
  return frame[kFrameFlagsOffset] == kStatusPushFlags &&
         frame[kFrameCommandSetOffset] == kStatusPushCommandSet &&
         frame[kFrameCommandIdOffset] == kStatusPushCommandId;
}

std::span<const std::uint8_t> PayloadOf(std::span<const std::uint8_t> frame) {
  return frame.subspan(kFramePayloadOffset, frame.size() - kFrameOverhead);
}

void StoreFields(std::span<const PushField> fields, std::span<const std::uint8_t> payload,
                 CameraState& state) {
  for (const PushField& field : fields) {
    field.store(field, LoadField(payload, field), state);
  }
}

void StoreStatus(std::span<const std::uint8_t> payload) {
  UpdateCameraState([payload](CameraState& state) {
    state.camera_detected = 1;
    StoreFields(kStatusPushFields, payload, state);
  });
}

void StoreSettings(std::span<const std::uint8_t> payload) {
  UpdateCameraState(
      [payload](CameraState& state) { StoreFields(kSettingsPushFields, payload, state); });
}

void StoreBattery(std::span<const std::uint8_t> payload) {
  UpdateCameraState(
      [payload](CameraState& state) { StoreFields(kBatteryPushFields, payload, state); });
}

void StoreHistogram(std::span<const std::uint8_t> payload) {
  const std::uint32_t now = StampOf(NowMs());  // 0 would mean "none"
  UpdateCameraState([payload, now](CameraState& state) {
    std::ranges::copy(payload, state.histogram.begin());
    state.histogram_time_ms = now;
  });
}

}  // namespace

void DecodeStatusFrame(std::span<const std::uint8_t> frame) {
  if (FrameIsSound(frame)) {
    DecodeSoundFrame(frame);
  }
}

void DecodeSoundFrame(std::span<const std::uint8_t> frame) {
  switch (frame.size()) {
    case kStatusPushLength:
      if (IsStatusPush(frame)) {
        StoreStatus(PayloadOf(frame));
        GetCounters().status_pushes.Add();
      }
      break;
    case kSettingsPushLength:
      StoreSettings(PayloadOf(frame));
      GetCounters().settings_pushes.Add();
      break;
    case kBatteryPushLength:
      StoreBattery(PayloadOf(frame));
      GetCounters().battery_pushes.Add();
      break;
    case kHistogramPushLength:
      StoreHistogram(PayloadOf(frame));
      GetCounters().histogram_pushes.Add();
      break;
    default:
      break;
  }
}

}  // namespace kestrelbridge
