#include "camera/command_frame_scanner.h"

#include <cstddef>

#include "base/byte_order.h"
#include "base/counters.h"
#include "camera/crc.h"
#include "camera/packet_format.h"

namespace kestrelbridge {
namespace {

constexpr std::size_t kFrameHeaderSize = kFrameCrc8Offset + 1;
constexpr std::size_t kMinFrameLength = kFrameCrc16Size;

}  // namespace

std::span<const std::uint8_t> CommandFrameAt(std::span<const std::uint8_t> bytes) {
  // The header must lie inside the batch, also where a frame claims to be shorter than it.
  if (bytes.size() < kFrameHeaderSize || bytes[0] != kFrameStart) {
    return {};
  }
  const std::size_t length = bytes[kFrameLengthOffset];
  if (length < kMinFrameLength || length > bytes.size()) {
    return {};
  }
  const std::size_t covered = length - kFrameCrc16Size;
  if (FrameCrc8(bytes.first(kFrameCrc8Offset)) != bytes[kFrameCrc8Offset] ||
      FrameCrc16(bytes.first(covered)) != LoadLe16(bytes, covered)) {
    return {};
  }
  return bytes.first(length);
}

void ScanCommandFrames(std::span<const std::uint8_t> batch, CommandFrameCallback on_frame) {
  while (!batch.empty()) {
    const auto frame = CommandFrameAt(batch);
    if (frame.empty()) {
      batch = batch.subspan(1);
    } else {
      GetCounters().frames_found.Add();
      on_frame(frame);
      batch = batch.subspan(frame.size());
    }
  }
}

}  // namespace kestrelbridge
