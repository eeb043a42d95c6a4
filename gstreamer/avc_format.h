// The form of H.264 that files want: NAL units behind their length instead of a start code, and the
// parameter sets in one piece beside the stream (ISO/IEC 14496-15).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "gstreamer/nal_units.h"

namespace kestrelbridge::gstreamer {

// AVCDecoderConfigurationRecord, the caps' codec_data. `sps` is at least kSmallestSps bytes; both
// are shorter than 65,536. Pure.
//
//   byte   meaning
//   0      version, 1
//   1-3    profile_idc, constraint flags, level_idc: bytes 1 to 3 of the SPS
//   4      111111, then NAL length size - 1 (2 bits): 3
//   5      111, then number of SPS (5 bits): 1
//   6-7    length of the SPS, big-endian; then its bytes
//   next   number of PPS, 1; then length and bytes as above
inline constexpr std::size_t kSmallestSps = 4;
std::vector<std::uint8_t> DecoderConfiguration(NalUnit sps, NalUnit pps);

// What the NAL units need in that form, and that form: each behind its length of 4 bytes,
// big-endian. `to` has AvcSize bytes. Pure.
std::size_t AvcSize(std::span<const NalUnit> nals);
void WriteAvc(std::span<const NalUnit> nals, std::span<std::uint8_t> to);

}  // namespace kestrelbridge::gstreamer
