#include "state/status_decoding.h"

#include <cstddef>
#include <cstdio>

#include "base/byte_order.h"
#include "camera/crc.h"
#include "camera/packet_format.h"

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
    std::fprintf(stderr, "CRC16 wrong\n");
    return false;
  }
  if (FrameCrc8(frame.first(kFrameCrc8Offset)) != frame[kFrameCrc8Offset]) {
    std::fprintf(stderr, "CRC8 wrong\n");
    return false;
  }
  return true;
}

}  // namespace

void DecodeStatusFrame(std::span<const std::uint8_t> frame) {
  if (!FrameIsSound(frame)) {
    return;
  }
}

}  // namespace kestrelbridge
