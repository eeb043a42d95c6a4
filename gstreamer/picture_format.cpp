#include "gstreamer/picture_format.h"

#include <array>
#include <cstddef>
#include <numeric>

#include "h264parse.h"

namespace kestrelbridge::gstreamer {
namespace {

// Longer parameter sets exist on paper only.
constexpr std::size_t kLongestParameterSet = 1024;

// The bytes behind the NAL unit's header, without emulation prevention (the 3 of 00 00 03).
struct Payload {
  std::array<std::uint8_t, kLongestParameterSet> bytes;
  std::uint32_t length = 0;
};

Payload WithoutEmulation(NalUnit nal) {
  Payload payload;
  int zeros = 0;
  for (const std::uint8_t byte : nal.subspan(1)) {
    if (zeros >= 2 && byte == 3) {
      zeros = 0;
      continue;
    }
    if (payload.length == payload.bytes.size()) {
      break;
    }
    payload.bytes[payload.length++] = byte;
    zeros = byte == 0 ? zeros + 1 : 0;
  }
  return payload;
}

std::uint32_t ReadBits(H264Parse& bits, int count) {
  std::uint32_t value = 0;
  for (int i = 0; i < count; ++i) {
    value = value << 1 | bits.ReadBit();
  }
  return value;
}

// In lowest terms; `otherwise` where that is no ratio of two positive ints.
Ratio RatioOf(std::uint64_t numerator, std::uint64_t denominator, Ratio otherwise) {
  constexpr std::uint64_t kMost = INT32_MAX;
  if (numerator == 0 || denominator == 0) {
    return otherwise;
  }
  const std::uint64_t common = std::gcd(numerator, denominator);
  if (numerator / common > kMost || denominator / common > kMost) {
    return otherwise;
  }
  return {static_cast<int>(numerator / common), static_cast<int>(denominator / common)};
}

constexpr std::uint32_t kExtendedSar = 255;

// sample_aspect_ratio by aspect_ratio_idc (ITU-T H.264, table E-1); 0: unspecified.
constexpr Ratio kPixelAspects[] = {
    {1, 1},   {1, 1},   {12, 11}, {10, 11}, {16, 11},  {40, 33}, {24, 11}, {20, 11}, {32, 11},
    {80, 33}, {18, 11}, {15, 11}, {64, 33}, {160, 99}, {4, 3},   {3, 2},   {2, 1},
};

Ratio ReadPixelAspect(H264Parse& bits) {
  const std::uint32_t idc = ReadBits(bits, 8);
  if (idc == kExtendedSar) {
    const std::uint32_t width = ReadBits(bits, 16);
    return RatioOf(width, ReadBits(bits, 16), {1, 1});
  }
  return idc < std::size(kPixelAspects) ? kPixelAspects[idc] : Ratio{1, 1};
}

Ratio ReadFrameRate(H264Parse& bits) {
  constexpr int kFastest = 1000;  // frames a second
  const std::uint64_t units_in_tick = ReadBits(bits, 32);
  const std::uint64_t time_scale = ReadBits(bits, 32);
  const Ratio rate = RatioOf(time_scale, 2 * units_in_tick, {});  // a frame is two fields
  return rate.numerator / rate.denominator <= kFastest ? rate : Ratio{};
}

// vui_parameters() as far as the frame rate.
void ReadVui(H264Parse& bits, PictureFormat& format) {
  Ratio aspect{1, 1};
  if (bits.ReadBit() != 0) {  // aspect_ratio_info_present_flag
    aspect = ReadPixelAspect(bits);
  }
  if (bits.ReadBit() != 0) {  // overscan_info_present_flag
    bits.ReadBit();
  }
  if (bits.ReadBit() != 0) {    // video_signal_type_present_flag
    ReadBits(bits, 3 + 1);      // video_format, video_full_range_flag
    if (bits.ReadBit() != 0) {  // colour_description_present_flag
      ReadBits(bits, 3 * 8);
    }
  }
  if (bits.ReadBit() != 0) {  // chroma_loc_info_present_flag
    bits.ReadUe();
    bits.ReadUe();
  }
  Ratio rate;
  if (bits.ReadBit() != 0) {  // timing_info_present_flag
    rate = ReadFrameRate(bits);
  }
  if (bits.IsSound()) {
    format.pixel_aspect = aspect;
    format.frame_rate = rate;
  }
}

bool IsASide(std::uint32_t length) { return length >= 1 && length <= kLongestSide; }

}  // namespace

std::optional<PictureFormat> ReadPictureFormat(NalUnit parameter_set) {
  const Payload payload = WithoutEmulation(parameter_set);
  H264Parse parser;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  if (!parser.ParseSps(payload.bytes.data(), payload.length, &width, &height) || !IsASide(width) ||
      !IsASide(height)) {
    return std::nullopt;
  }
  PictureFormat format{.width = static_cast<int>(width), .height = static_cast<int>(height)};
  if (parser.HasVui()) {
    ReadVui(parser, format);
  }
  return format;
}

}  // namespace kestrelbridge::gstreamer
