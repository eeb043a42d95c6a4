#include "camera/command_frame_scanner.h"

#include <cstddef>
#include <cstring>

#include "base/byte_order.h"
#include "base/counters.h"
#include "camera/crc.h"
#include "camera/packet_format.h"

namespace kestrelbridge {
namespace {

constexpr std::size_t kFrameHeaderSize = kFrameCrc8Offset + 1;
constexpr std::size_t kMinFrameLength = kFrameCrc16Size;

// What is left of the batch from its next start byte on.
std::span<const std::uint8_t> FromStartByte(std::span<const std::uint8_t> batch) {
  if (batch.empty() || batch[0] == kFrameStart) {
    return batch;
  }
  const void* const start = std::memchr(batch.data(), kFrameStart, batch.size());
  const auto* const skipped_to = static_cast<const std::uint8_t*>(start);
  return skipped_to == nullptr ? batch.last(0)
                               : batch.subspan(static_cast<std::size_t>(skipped_to - batch.data()));
}

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
  for (batch = FromStartByte(batch); !batch.empty(); batch = FromStartByte(batch)) {
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
