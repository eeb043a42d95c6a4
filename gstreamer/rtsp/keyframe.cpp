#include "gstreamer/rtsp/keyframe.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace kestrelbridge::rtsp {
namespace {

constexpr std::size_t kFixedHeaderSize =
    12;  // of RTP; four bytes more for each contributing source
constexpr std::size_t kAggregateHeaderSize = 1;
constexpr std::size_t kNalSizeSize = 2;  // before each NAL unit of an aggregate, big-endian
constexpr std::uint8_t kExtensionBit = 0x10;
constexpr std::uint8_t kSourceCountMask = 0x0F;
constexpr std::uint8_t kNalTypeMask = 0x1F;
constexpr std::uint8_t kNalTypeSps = 7;
constexpr std::uint8_t kNalTypeStapA = 24;
constexpr std::size_t kLooksAt = 128;  // bytes: a delimiter may come before the parameter set

bool AggregateHoldsSps(std::span<const std::uint8_t> units) {
  while (units.size() > kNalSizeSize) {
    const std::size_t size = kNalSizeSize + (static_cast<std::size_t>(units[0]) << 8U | units[1]);
    if ((units[kNalSizeSize] & kNalTypeMask) == kNalTypeSps) {
      return true;
    }
    units = units.subspan(size < units.size() ? size : units.size());
  }
  return false;
}

}  // namespace

bool OpensKeyframe(GstBuffer* packet) {
  std::array<std::uint8_t, kLooksAt> bytes;
  const std::size_t size = gst_buffer_extract(packet, 0, bytes.data(), bytes.size());
  const std::span<const std::uint8_t> all(bytes.data(), size);
  const std::size_t header = kFixedHeaderSize + (size == 0 ? 0U : 4U * (all[0] & kSourceCountMask));
  if (header >= size || (all[0] & kExtensionBit) != 0) {  // our payloader makes no extensions
    return false;
  }
  const std::uint8_t type = all[header] & kNalTypeMask;
  return type == kNalTypeSps ||
         (type == kNalTypeStapA && AggregateHoldsSps(all.subspan(header + kAggregateHeaderSize)));
}

}  // namespace kestrelbridge::rtsp
