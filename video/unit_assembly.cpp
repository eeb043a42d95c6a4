#include "video/unit_assembly.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "base/byte_order.h"
#include "base/copy_bytes.h"
#include "base/counters.h"
#include "base/log.h"
#include "bridge/phone_app_bridge.h"
#include "camera/camera_link.h"
#include "camera/packet_format.h"
#include "video/frame_buffers.h"
#include "video/picture_size.h"

namespace kestrelbridge {
namespace {

constexpr std::size_t kUnitLengthOffset = 24;
constexpr std::size_t kUnitHeaderEnd = 32;

struct FixedByte {
  std::size_t offset;
  std::uint8_t value;
};
constexpr std::array<FixedByte, 7> kUnitHeaderBytes = {{
    {20, 0x00},
    {21, 0x00},
    {22, 0x01},
    {23, 0xFF},
    {26, 0xFF},
    {27, 0x00},  // bits 16-23 of the unit length: no unit is that long
    {28, 0x4C},
}};
constexpr std::size_t kLastFixedByte = kUnitHeaderBytes.back().offset;

constexpr std::array<std::uint8_t, 4> kStartCode = {0x00, 0x00, 0x00, 0x01};
constexpr std::size_t kNalHeaderOffset = kStartCode.size();
constexpr std::size_t kMinUnitLength = kNalHeaderOffset + 1;
// A NAL unit's type has five bits. The camera's stream is told apart by the lower four on purpose:
// what counts as a parameter set (type 7) there counts as one here.
constexpr std::uint8_t kNalTypeMask = 0x0F;
constexpr std::uint8_t kNalTypeSps = 7;

constexpr std::size_t kStagingSize = 100'000;
constexpr std::size_t kMaxFill = kStagingSize - 1;

// The unit in progress. Touched by the camera's receive thread alone.
constinit std::array<std::uint8_t, kStagingSize> staging{};
constinit std::size_t fill = 0;  // bytes gathered so far
constinit std::size_t expected_length =
    0;  // from the unit's header; 0 while no unit is in progress

// Set by start-up before the camera's receive thread exists.
constinit bool publishes_when_whole = false;
// Of the unit in progress; moves only with publishes_when_whole. A unit is published once: bytes
// that come after an overflow may reach its length a second time.
enum class Early { kNotPublished, kPublished, kSpoiled };
constinit Early early = Early::kNotPublished;

bool IsUnitHeader(std::span<const std::uint8_t> datagram) {
  return datagram.size() > kLastFixedByte &&
         std::ranges::all_of(kUnitHeaderBytes, [&](const FixedByte& fixed) {
           return datagram[fixed.offset] == fixed.value;
         });
}

void Append(std::span<const std::uint8_t> unit_bytes) {
  unit_bytes = unit_bytes.first(std::min(unit_bytes.size(), kMaxFill));  // no datagram is that long
  if (fill + unit_bytes.size() > kMaxFill) {
    GetCounters().video_overflows.Add();
    Log("video buffer overflow\n");
    fill = 0;
  }
  CopyBytes(unit_bytes, std::span(staging).subspan(fill));
  fill += unit_bytes.size();
}

bool IsH264(std::span<const std::uint8_t> unit) {
  return unit.size() >= kMinUnitLength &&
         std::ranges::equal(unit.first(kStartCode.size()), kStartCode);
}

void Publish(std::span<const std::uint8_t> unit) {
  if ((unit[kNalHeaderOffset] & kNalTypeMask) == kNalTypeSps) {
    FollowPictureSize(unit.subspan(kNalHeaderOffset + 1));
  }
  PublishVideoUnit(unit);
}

void PublishEarly() {
  const auto unit = std::span(staging).first(fill);
  if (early == Early::kNotPublished && fill == expected_length && IsH264(unit)) {
    Publish(unit);
    early = Early::kPublished;
  } else if (early == Early::kPublished && fill != expected_length) {
    GetCounters().units_spoiled.Add();
    early = Early::kSpoiled;
  }
}

void AcknowledgeUnit() {
  if (SendToCamera(BuildUnitAcknowledgement(LastReceivedSequence())) != -1) {
    GetCounters().acknowledgements.Add();
  }
  TakePacketNumber();
}

void FinishUnit() {
  if (fill == 0) {
    return;
  }
  if (fill != expected_length) {
    GetCounters().units_corrupted.Add();
    Log("corrupted unit\n");
    return;
  }
  if (const auto unit = std::span(staging).first(fill); !IsH264(unit)) {
    GetCounters().units_not_published.Add();
  } else if (early == Early::kNotPublished) {
    Publish(unit);
  }
  if (!PhoneAppConnected()) {  // else the phone app acknowledges
    AcknowledgeUnit();
  }
}

void StartUnit(std::span<const std::uint8_t> header_datagram) {
  expected_length = LoadLe16(header_datagram, kUnitLengthOffset);
  fill = 0;
  early = Early::kNotPublished;
  Append(header_datagram.subspan(kUnitHeaderEnd));
}

// False when the datagram belongs to no unit.
bool TakeUnitBytes(std::span<const std::uint8_t> datagram) {
  if (IsUnitHeader(datagram)) {
    if (datagram.size() < kUnitHeaderEnd) {
      return false;
    }
    FinishUnit();
    StartUnit(datagram);
    return true;
  }
  if (expected_length == 0 || datagram.size() < kReceivedWrapperSize) {
    return false;
  }
  Append(datagram.subspan(kReceivedWrapperSize));
  return true;
}

}  // namespace

void PublishUnitsWhenWhole(bool when_whole) { publishes_when_whole = when_whole; }

void TakeVideoDatagram(std::span<const std::uint8_t> datagram) {
  if (!TakeUnitBytes(datagram)) {
    GetCounters().stray_video_datagrams.Add();
  } else if (publishes_when_whole) {
    PublishEarly();
  }
}

}  // namespace kestrelbridge
