// H264Parse: the picture size out of an H.264 sequence parameter set.
//
// Reads seq_parameter_set_data() (ITU-T H.264, clause 7.3.2.1.1) as far as
// vui_parameters_present_flag. It keeps what the picture size depends on and walks over the rest.
// The readers of single elements are there for other parameter sets, too. Header-only, nothing but
// the standard library; allocates nothing; never reads a byte at or beyond the given length.
#pragma once

#include <cstdint>

class H264Parse {
 public:
  // Width and height in luma samples of the parameter set whose bytes follow its one-byte NAL unit
  // header at `data`. `length` bytes may be read; what follows the parameter set does not matter.
  // The bytes are read as they stand, emulation-prevention bytes included, and values are not
  // tested against the ranges that the standard allows. Returns false, and stores nothing, when the
  // data ends before vui_parameters_present_flag has been read. One parse at a time for an object.
  bool ParseSps(const std::uint8_t* data, std::uint32_t length, std::uint32_t* width,
                std::uint32_t* height) {
    Start(data, length);
    if (length < kFixedPartBytes) {
      return false;
    }
    const std::uint8_t profile_idc = data[0];
    m_nCurrentBit = kFixedPartBytes * 8;  // the constraint flags and level_idc do not matter here
    ReadUe();                             // seq_parameter_set_id
    if (HasChromaElements(profile_idc)) {
      SkipChromaElements();
    }
    ReadUe();  // log2_max_frame_num_minus4
    SkipPicOrderCount();
    ReadUe();   // max_num_ref_frames
    ReadBit();  // gaps_in_frame_num_value_allowed_flag
    const std::uint32_t width_in_mbs = ReadUe() + 1;
    const std::uint32_t height_in_map_units = ReadUe() + 1;
    const std::uint32_t frame_mbs_only = ReadBit();
    if (frame_mbs_only == 0) {
      ReadBit();  // mb_adaptive_frame_field_flag
    }
    ReadBit();  // direct_8x8_inference_flag
    std::uint32_t crop_x = 0;
    std::uint32_t crop_y = 0;
    if (ReadBit() != 0) {  // frame_cropping_flag
      crop_x = ReadUe();   // left
      crop_x += ReadUe();  // right
      crop_y = ReadUe();   // top
      crop_y += ReadUe();  // bottom
    }
    m_bHasVui = ReadBit() != 0;  // vui_parameters_present_flag
    if (!IsSound()) {
      return false;
    }
    *width = kMacroblockSize * width_in_mbs - kCropUnit * crop_x;
    *height = kMacroblockSize * (2 - frame_mbs_only) * height_in_map_units - kCropUnit * crop_y;
    return true;
  }

  // After a successful ParseSps: whether vui_parameters() follow, the next bit being their first.
  bool HasVui() const { return m_bHasVui; }

  // Reading by hand begins at the first bit of `data`; `length` bytes may be read.
  void Start(const std::uint8_t* data, std::uint32_t length) {
    m_pData = data;
    m_nLength = length < kMaxBytes ? length : kMaxBytes;
    m_nCurrentBit = 0;
    m_bExhausted = false;
  }

  // False once a read went beyond the data: what was read since is worth nothing.
  bool IsSound() const { return !m_bExhausted; }

  // Next bit, 0 or 1, most significant first. Beyond the end of the data it reports 0 and the whole
  // parse has failed.
  std::uint32_t ReadBit() {
    const std::uint32_t byte = m_nCurrentBit / 8;
    if (byte >= m_nLength) {
      m_bExhausted = true;
      return 0;
    }
    const std::uint32_t bit = (m_pData[byte] >> (7 - m_nCurrentBit % 8)) & 1U;
    ++m_nCurrentBit;
    return bit;
  }

  // Unsigned exp-Golomb value, ue(v), modulo 2^32.
  std::uint32_t ReadUe() {
    if (ReadBit() != 0) {
      return 0;
    }
    std::uint32_t value_bits = 0;
    do {
      ++value_bits;
    } while (ReadBit() == 0 && value_bits < kMaxUePrefix && !m_bExhausted);
    std::uint64_t value = 0;
    for (std::uint32_t i = 0; i < value_bits; ++i) {
      value = value << 1 | ReadBit();
    }
    return static_cast<std::uint32_t>((std::uint64_t{1} << value_bits) - 1 + value);
  }

  // Signed exp-Golomb value, se(v); 64 bits hold every one.
  std::int64_t ReadSe() {
    const std::int64_t k = ReadUe();
    return k % 2 != 0 ? (k + 1) / 2 : -(k / 2);
  }

 private:
  static constexpr std::uint32_t kFixedPartBytes = 3;  // profile_idc, constraint flags, level_idc
  static constexpr std::uint32_t kMacroblockSize = 16;
  static constexpr std::uint32_t kMaxBytes = UINT32_MAX / 8;  // keeps the bit position in 32 bits
  // The camera's streams count crop offsets in units of two samples, in both directions.
  static constexpr std::uint32_t kCropUnit = 2;
  static constexpr std::uint32_t kChroma444 = 3;
  static constexpr int kScalingLists = 8;
  static constexpr int kSmallScalingLists = 6;  // the first six have 16 entries, the others 64
  static constexpr std::uint32_t kMaxUePrefix = 32;

  static bool HasChromaElements(std::uint8_t profile_idc) {
    switch (profile_idc) {
      case 100:
      case 110:
      case 122:
      case 244:
      case 44:
      case 83:
      case 86:
      case 118:
        return true;
      default:
        return false;
    }
  }

  void SkipChromaElements() {
    if (ReadUe() == kChroma444) {  // chroma_format_idc
      ReadBit();                   // separate_colour_plane_flag
    }
    ReadUe();              // bit_depth_luma_minus8
    ReadUe();              // bit_depth_chroma_minus8
    ReadBit();             // qpprime_y_zero_transform_bypass_flag
    if (ReadBit() != 0) {  // seq_scaling_matrix_present_flag
      for (int list = 0; list < kScalingLists; ++list) {
        if (ReadBit() != 0) {  // seq_scaling_list_present_flag
          SkipScalingList(list < kSmallScalingLists ? 16 : 64);
        }
      }
    }
  }

  // A list ends early, and so reads no more, once its next scale is 0.
  void SkipScalingList(int entries) {
    std::int32_t last_scale = 8;
    for (int entry = 0; entry < entries && !m_bExhausted; ++entry) {
      // In 64 bits, where no delta overflows.
      const std::int64_t sum = std::int64_t{last_scale} + ReadSe() + 256;
      const auto next_scale = static_cast<std::int32_t>(sum % 256);
      if (next_scale == 0) {
        return;
      }
      last_scale = next_scale;
    }
  }

  void SkipPicOrderCount() {
    const std::uint32_t pic_order_cnt_type = ReadUe();
    if (pic_order_cnt_type == 0) {
      ReadUe();  // log2_max_pic_order_cnt_lsb_minus4
    } else if (pic_order_cnt_type == 1) {
      ReadBit();  // delta_pic_order_always_zero_flag
      ReadUe();   // offset_for_non_ref_pic: se and ue have the same length
      ReadUe();   // offset_for_top_to_bottom_field
      const auto cycle = static_cast<std::int32_t>(ReadUe());
      for (std::int32_t i = 0; i < cycle && !m_bExhausted; ++i) {
        ReadUe();  // offset_for_ref_frame
      }
    }
  }

  const std::uint8_t* m_pData = nullptr;  // not owned
  std::uint32_t m_nLength = 0;            // bytes that may be read
  std::uint32_t m_nCurrentBit = 0;        // from the first bit of m_pData
  bool m_bExhausted = false;              // a read went beyond the data
  bool m_bHasVui = false;                 // the last flag of the parameter set that was parsed
};
