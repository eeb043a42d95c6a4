#include "state/command_data.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "base/copy_bytes.h"
#include "base/counters.h"
#include "base/log.h"
#include "camera/command_frame_scanner.h"
#include "state/status_decoding.h"

namespace kestrelbridge {
namespace {

constexpr std::size_t kBufferSize = 60'000;
constexpr std::size_t kMaxFill = kBufferSize - 1;
constexpr std::size_t kBatchThreshold = 500;

// Touched by the camera's receive thread alone.
constinit std::array<std::uint8_t, kBufferSize> buffer{};
constinit std::size_t fill = 0;

}  // namespace

void GatherCommandData(std::span<const std::uint8_t> payload) {
  payload = payload.first(std::min(payload.size(), kMaxFill));  // no datagram is that long
  if (fill + payload.size() > kMaxFill) {
    GetCounters().command_data_overflows.Add();
    Log("data buffer overflow\n");
    fill = 0;
  }
  CopyBytes(payload, std::span(buffer).subspan(fill));
  fill += payload.size();
  if (fill > kBatchThreshold) {
    ScanCommandFrames(std::span(buffer).first(fill), DecodeSoundFrame);
    fill = 0;
  }
}

}  // namespace kestrelbridge
