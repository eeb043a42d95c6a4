// What a sequence parameter set says of the pictures, as far as caps tell it.
#pragma once

#include <cstdint>
#include <optional>

#include "gstreamer/nal_units.h"

namespace kestrelbridge::gstreamer {

struct Ratio {
  int numerator = 0;
  int denominator = 1;
  bool operator==(const Ratio&) const = default;
};

struct PictureFormat {
  int width = 0;  // of the picture that is shown, in samples, 1 to kLongestSide
  int height = 0;
  Ratio pixel_aspect{1, 1};
  Ratio frame_rate{};  // 0/1: the stream does not say
  bool operator==(const PictureFormat&) const = default;
};

// Beyond that no level of the standard goes; whoever announces more wants our memory.
inline constexpr int kLongestSide = 16'384;

// Nothing when the parameter set (with its header) is cut short, or tells of no picture that there
// can be. Reads nothing beyond it. Progressive 4:2:0 pictures, as the camera's; the cropping of
// others comes out wrong. Pure.
std::optional<PictureFormat> ReadPictureFormat(NalUnit parameter_set);

}  // namespace kestrelbridge::gstreamer
