#include "tools/camera/stream_forecast.h"

#include <algorithm>

#include "base/byte_order.h"
#include "camera/packet_format.h"
#include "tools/wire/unit_header.h"

// The rules are written down here once more, instead of being taken from the daemon: a check
// against the code that is checked would find nothing.

namespace kestrelbridge::tools {
namespace {

constexpr std::size_t kShortestDatagram = 12;
constexpr std::size_t kLongestUnit = 99'999;

}  // namespace

void StreamForecast::Take(std::span<const std::uint8_t> datagram) {
  if (datagram.size() < kShortestDatagram) {
    return;
  }
  switch (datagram[kWrapperKindOffset]) {
    case kKindVideo:
      ++counters_.video_datagrams;
      TakeVideo(datagram);
      break;
    case kKindCommandData:
      ++counters_.command_data_datagrams;
      break;
    default:
      ++counters_.other_datagrams;
      break;
  }
}

void StreamForecast::TakeVideo(std::span<const std::uint8_t> datagram) {
  const bool opens_unit = HasUnitHeader(datagram);
  if (datagram.size() < (opens_unit ? kUnitHeaderEnd : kReceivedWrapperSize) ||
      (!opens_unit && announced_length_ == 0)) {
    ++counters_.stray_datagrams;
    return;
  }
  if (opens_unit) {
    FinishUnit();
    announced_length_ = LoadLe16(datagram, kUnitLengthOffset);
    length_ = 0;
  }
  Append(datagram.subspan(opens_unit ? kUnitHeaderEnd : kReceivedWrapperSize));
}

void StreamForecast::Append(std::span<const std::uint8_t> unit_bytes) {
  if (length_ + unit_bytes.size() > kLongestUnit) {
    length_ = 0;  // what was gathered is thrown away
  }
  for (std::size_t i = 0; i < unit_bytes.size() && length_ + i < opening_.size(); ++i) {
    opening_[length_ + i] = unit_bytes[i];
  }
  length_ += unit_bytes.size();
}

void StreamForecast::FinishUnit() {
  constexpr std::array<std::uint8_t, 4> kStartCode = {0, 0, 0, 1};
  if (length_ == 0) {
    return;
  }
  if (length_ != announced_length_) {
    ++counters_.broken_units;
  } else if (length_ < opening_.size() ||
             !std::ranges::equal(std::span(opening_).first(kStartCode.size()), kStartCode)) {
    ++counters_.odd_units;
  } else {
    ++counters_.whole_units;
    counters_.whole_bytes += length_;
  }
}

}  // namespace kestrelbridge::tools
