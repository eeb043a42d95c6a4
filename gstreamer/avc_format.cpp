#include "gstreamer/avc_format.h"

#include <algorithm>

namespace kestrelbridge::gstreamer {
namespace {

constexpr std::size_t kLengthSize = 4;

void AppendSet(std::vector<std::uint8_t>& record, NalUnit set) {
  record.push_back(static_cast<std::uint8_t>(set.size() >> 8));
  record.push_back(static_cast<std::uint8_t>(set.size()));
  record.insert(record.end(), set.begin(), set.end());
}

}  // namespace

std::vector<std::uint8_t> DecoderConfiguration(NalUnit sps, NalUnit pps) {
  constexpr std::uint8_t kOneSps = 0xE0 | 1;
  std::vector<std::uint8_t> record = {1, sps[1], sps[2], sps[3], 0xFC | (kLengthSize - 1), kOneSps};
  AppendSet(record, sps);
  record.push_back(1);
  AppendSet(record, pps);
  return record;
}

std::size_t AvcSize(std::span<const NalUnit> nals) {
  std::size_t size = 0;
  for (const NalUnit nal : nals) {
    size += kLengthSize + nal.size();
  }
  return size;
}

void WriteAvc(std::span<const NalUnit> nals, std::span<std::uint8_t> to) {
  for (const NalUnit nal : nals) {
    for (std::size_t i = 0; i < kLengthSize; ++i) {
      to[i] = static_cast<std::uint8_t>(nal.size() >> (8 * (kLengthSize - 1 - i)));
    }
    std::ranges::copy(nal, to.begin() + kLengthSize);
    to = to.subspan(kLengthSize + nal.size());
  }
}

}  // namespace kestrelbridge::gstreamer
