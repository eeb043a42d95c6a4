// Sequence parameter sets written bit by bit, in the words of the H.264 standard.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kestrelbridge::test {

class BitWriter {
 public:
  BitWriter& U(unsigned bits, std::uint64_t value) {
    for (unsigned i = bits; i-- > 0;) {
      bits_.push_back((value >> i & 1) != 0);
    }
    return *this;
  }
  BitWriter& Ue(std::uint32_t value) {
    const std::uint64_t code = std::uint64_t{value} + 1;
    const auto length = static_cast<unsigned>(64 - __builtin_clzll(code));
    return U(length - 1, 0).U(length, code);
  }
  BitWriter& Se(std::int32_t value) {
    const std::int64_t twice = 2 * std::int64_t{value};
    return Ue(static_cast<std::uint32_t>(value > 0 ? twice - 1 : -twice));
  }
  std::size_t size() const { return bits_.size(); }
  std::vector<std::uint8_t> Bytes() const {
    std::vector<std::uint8_t> bytes((bits_.size() + 7) / 8);
    for (std::size_t i = 0; i < bits_.size(); ++i) {
      bytes[i / 8] = static_cast<std::uint8_t>(bytes[i / 8] | (bits_[i] ? 0x80 >> i % 8 : 0));
    }
    return bytes;
  }

 private:
  std::vector<bool> bits_;
};

inline BitWriter ParameterSetStart(std::uint8_t profile_idc) {
  BitWriter bits;
  return bits.U(8, profile_idc).U(16, 0x0028).Ue(0);
}

// Everything behind the profile's own elements.
inline BitWriter& ParameterSetTail(BitWriter& bits, std::uint32_t width_in_mbs,
                                   std::uint32_t height_in_map_units, bool frame_mbs_only = true,
                                   const std::vector<std::uint32_t>& crop = {}) {
  bits.Ue(0).Ue(0).Ue(4).Ue(4).U(1, 0).Ue(width_in_mbs - 1).Ue(height_in_map_units - 1);
  bits.U(1, frame_mbs_only ? 1 : 0);
  if (!frame_mbs_only) {
    bits.U(1, 0);
  }
  bits.U(1, 1).U(1, crop.empty() ? 0 : 1);
  for (const std::uint32_t offset : crop) {
    bits.Ue(offset);
  }
  return bits.U(1, 0);
}

}  // namespace kestrelbridge::test
