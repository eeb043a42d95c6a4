#include "support/pushes.h"

#include <algorithm>

#include "camera/crc.h"
#include "camera/packet_format.h"
#include "state/camera_state.h"
#include "state/telemetry.h"

namespace kestrelbridge::test {

Bytes Push(std::size_t length, std::uint8_t fill) {
  return CommandFrame(0x02, 0x80, Bytes(length - kFrameOverhead, fill));
}

Bytes PushWith(std::size_t length, const std::vector<std::pair<std::size_t, Bytes>>& fields) {
  Bytes push = Push(length);
  for (const auto& [offset, bytes] : fields) {
    Put(push, offset, bytes);
  }
  return push;
}

void Put(Bytes& push, std::size_t payload_offset, const Bytes& bytes) {
  std::ranges::copy(
      bytes, push.begin() + kFramePayloadOffset + static_cast<std::ptrdiff_t>(payload_offset));
  Seal(push);
}

void Seal(Bytes& frame) {
  frame[3] = FrameCrc8({frame.data(), 3});
  SealCommandFrame(frame, 0);
}

std::string TelemetryText() {
  const TextRecord record = BuildTextRecord(SnapshotCameraState());
  return {record.buffer.begin() + 1,
          record.buffer.begin() + static_cast<std::ptrdiff_t>(record.length)};
}

std::string Item(std::string_view text, std::string_view key) {
  while (!text.empty()) {
    const std::string_view item = text.substr(0, text.find(','));
    if (item.starts_with(key) && item.substr(key.size()).starts_with('=')) {
      return std::string(item.substr(key.size() + 1));
    }
    text.remove_prefix(std::min(text.size(), item.size() + 1));
  }
  return "(absent)";
}

}  // namespace kestrelbridge::test
