#include "tools/camera/annexb.h"

#include <cstddef>

namespace kestrelbridge::tools {
namespace {

constexpr std::size_t kStartCodeSize = 3;  // 00 00 01, with or without a zero byte before it
constexpr std::uint8_t kNalTypeMask = 0x1F;
constexpr std::uint8_t kNalTypeSlice = 1;
constexpr std::uint8_t kNalTypePartitionA = 2;
constexpr std::uint8_t kNalTypeIdrSlice = 5;
// A slice header opens with first_mb_in_slice as an Exp-Golomb code: 0 is a single 1 bit.
constexpr std::uint8_t kFirstMacroblockIsZero = 0x80;

struct NalUnit {
  std::size_t begin = 0;  // of its start code, zero byte included
  std::uint8_t type = 0;
  bool first_macroblock = false;  // a slice with the first macroblock of its picture
};

bool IsVcl(const NalUnit& nal) { return nal.type >= kNalTypeSlice && nal.type <= kNalTypeIdrSlice; }

// True when the NAL unit begins the next access unit if the present one already has a picture.
bool OpensUnit(const NalUnit& nal) {
  const bool before_picture = (nal.type >= 6 && nal.type <= 9) ||  // SEI, SPS, PPS, delimiter
                              (nal.type >= 14 && nal.type <= 18);  // prefix, subset SPS, reserved
  return before_picture || nal.first_macroblock;
}

bool StartCodeAt(std::span<const std::uint8_t> stream, std::size_t at) {
  return stream[at] == 0 && stream[at + 1] == 0 && stream[at + 2] == 1;
}

NalUnit ReadNalUnit(std::span<const std::uint8_t> stream, std::size_t start_code) {
  NalUnit nal;
  nal.begin = start_code > 0 && stream[start_code - 1] == 0 ? start_code - 1 : start_code;
  const auto body = stream.subspan(start_code + kStartCodeSize);
  nal.type = body.empty() ? 0 : body[0] & kNalTypeMask;
  // Partitions B and C carry no macroblock address.
  const bool has_slice_header =
      nal.type == kNalTypeSlice || nal.type == kNalTypePartitionA || nal.type == kNalTypeIdrSlice;
  nal.first_macroblock =
      has_slice_header && body.size() > 1 && (body[1] & kFirstMacroblockIsZero) != 0;
  return nal;
}

}  // namespace

std::vector<AccessUnit> SplitAccessUnits(std::span<const std::uint8_t> stream) {
  std::vector<AccessUnit> units;
  std::size_t unit_begin = 0;
  bool has_picture = false;
  for (std::size_t at = 0; at + kStartCodeSize <= stream.size(); ++at) {
    if (!StartCodeAt(stream, at)) {
      continue;
    }
    const NalUnit nal = ReadNalUnit(stream, at);
    if (has_picture && OpensUnit(nal)) {
      units.push_back(stream.subspan(unit_begin, nal.begin - unit_begin));
      unit_begin = nal.begin;
      has_picture = false;
    }
    has_picture = has_picture || IsVcl(nal);
    at += kStartCodeSize - 1;
  }
  if (has_picture || !units.empty()) {
    units.push_back(stream.subspan(unit_begin));
  }
  return units;
}

}  // namespace kestrelbridge::tools
