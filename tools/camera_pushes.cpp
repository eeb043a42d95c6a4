#include "tools/camera_pushes.h"

#include <span>

#include "camera/crc.h"
#include "camera/packet_format.h"

namespace kestrelbridge {
namespace {

constexpr std::uint8_t kCamera = 0x01;
constexpr std::uint8_t kApp = 0x02;
constexpr std::uint8_t kPushFlags = 0x00;
constexpr std::uint8_t kCameraSet = 0x02;
constexpr std::uint8_t kStatusPushId = 0x80;

}  // namespace

StatusPush BuildStatusPush(std::uint16_t frame_sequence) {
  StatusPush frame{};
  frame[0] = kFrameStart;
  frame[kFrameLengthOffset] = static_cast<std::uint8_t>(frame.size());
  frame[kFrameFormatOffset] = kFrameFormat;
  frame[kFrameCrc8Offset] = FrameCrc8(std::span(frame).first(kFrameCrc8Offset));
  frame[kFrameSenderOffset] = kCamera;
  frame[kFrameReceiverOffset] = kApp;
  frame[kFrameFlagsOffset] = kPushFlags;
  frame[kFrameCommandSetOffset] = kCameraSet;
  frame[kFrameCommandIdOffset] = kStatusPushId;
  SealCommandFrame(frame, frame_sequence);
  return frame;
}

}  // namespace kestrelbridge
