#include "gstreamer/nal_units.h"

#include <cstddef>

namespace kestrelbridge::gstreamer {
namespace {

constexpr std::size_t kStartCodeSize = 3;  // 00 00 01; a zero byte before it belongs to nobody

// Where the next start code begins, or the unit's size.
std::size_t FindStartCode(std::span<const std::uint8_t> unit, std::size_t from) {
  std::size_t at = from;
  while (at + kStartCodeSize <= unit.size()) {
    if (unit[at + 2] > 1) {
      at += 3;  // no start code has such a byte
    } else if (unit[at] == 0 && unit[at + 1] == 0 && unit[at + 2] == 1) {
      return at;
    } else {
      ++at;
    }
  }
  return unit.size();
}

NalUnit WithoutTrailingZeros(NalUnit nal) {
  while (!nal.empty() && nal.back() == 0) {
    nal = nal.first(nal.size() - 1);
  }
  return nal;
}

}  // namespace

void SplitNalUnits(std::span<const std::uint8_t> unit, Extent extent, std::vector<NalUnit>& nals) {
  nals.clear();
  std::size_t start_code = FindStartCode(unit, 0);
  while (start_code < unit.size()) {
    const std::size_t begin = start_code + kStartCodeSize;
    const bool is_last =
        extent == Extent::kHead && begin < unit.size() && IsSlice(TypeOf(unit.subspan(begin)));
    start_code = is_last ? unit.size() : FindStartCode(unit, begin);
    const NalUnit nal = WithoutTrailingZeros(unit.subspan(begin, start_code - begin));
    if (!nal.empty()) {
      nals.push_back(nal);
    }
  }
}

}  // namespace kestrelbridge::gstreamer
