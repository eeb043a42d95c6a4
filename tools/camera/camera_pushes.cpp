#include "tools/camera/camera_pushes.h"

#include <algorithm>
#include <span>

#include "camera/crc.h"
#include "camera/packet_format.h"

namespace kestrelbridge::tools {
namespace {

constexpr std::uint8_t kCamera = 0x01;
constexpr std::uint8_t kApp = 0x02;

// What a push opens with. The daemon tells pushes apart by their lengths; only the status push has
// to have this set and id.
struct PushKind {
  std::uint8_t command_set;
  std::uint8_t command_id;
};
constexpr PushKind kStatus = {kStatusPushCommandSet, kStatusPushCommandId};
constexpr PushKind kSettings = {0x02, 0x81};
constexpr PushKind kHistogram = {0x02, 0x61};
constexpr PushKind kBattery = {0x0D, 0x02};

void AppendPush(const PushKind& kind, std::span<const std::uint8_t> payload,
                std::uint16_t frame_sequence, std::vector<std::uint8_t>& pushes) {
  const std::size_t begin = pushes.size();
  pushes.resize(begin + kFrameOverhead + payload.size());
  const auto frame = std::span(pushes).subspan(begin);
  frame[0] = kFrameStart;
  frame[kFrameLengthOffset] = static_cast<std::uint8_t>(frame.size());
  frame[kFrameFormatOffset] = kFrameFormat;
  frame[kFrameCrc8Offset] = FrameCrc8(frame.first(kFrameCrc8Offset));
  frame[kFrameSenderOffset] = kCamera;
  frame[kFrameReceiverOffset] = kApp;
  frame[kFrameFlagsOffset] = kStatusPushFlags;
  frame[kFrameCommandSetOffset] = kind.command_set;
  frame[kFrameCommandIdOffset] = kind.command_id;
  std::ranges::copy(payload, frame.subspan(kFramePayloadOffset).begin());
  SealCommandFrame(frame, frame_sequence);
}

}  // namespace

Histogram HistogramOf(AccessUnit unit) {
  constexpr std::size_t kByteValuesPerBin = 256 / kHistogramSize;
  std::array<std::size_t, kHistogramSize> counts{};
  for (const std::uint8_t byte : unit) {
    ++counts[byte / kByteValuesPerBin];
  }
  const std::size_t most = std::max<std::size_t>(std::ranges::max(counts), 1);
  Histogram histogram{};
  std::ranges::transform(counts, histogram.begin(), [most](std::size_t count) {
    return static_cast<std::uint8_t>(count * 255 / most);
  });
  return histogram;
}

std::vector<std::uint8_t> BuildPushes(const CameraModel& model, const Histogram& histogram,
                                      std::uint16_t& frame_sequence) {
  std::vector<std::uint8_t> pushes;
  pushes.reserve(kPushesSize);
  AppendPush(kStatus, model.status, frame_sequence++, pushes);
  AppendPush(kSettings, model.settings, frame_sequence++, pushes);
  AppendPush(kBattery, model.battery, frame_sequence++, pushes);
  if (model.histogram_on) {
    AppendPush(kHistogram, histogram, frame_sequence++, pushes);
  }
  return pushes;
}

}  // namespace kestrelbridge::tools
