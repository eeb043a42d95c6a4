#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "h264parse.h"
#include "video/parameter_set_bits.h"

namespace kestrelbridge {
namespace {

struct Size {
  bool ok = false;
  std::uint32_t width = 7;
  std::uint32_t height = 7;
  bool operator==(const Size&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Size& size) {
  return out << (size.ok ? "" : "failed ") << size.width << "x" << size.height;
}
constexpr Size kFailed{};

// In a heap block of exactly its size, so that AddressSanitizer sees a read beyond.
Size Parse(const std::vector<std::uint8_t>& bytes) {
  const auto exact = std::make_unique<std::uint8_t[]>(bytes.size());
  std::ranges::copy(bytes, exact.get());
  H264Parse parser;
  Size size;
  size.ok = parser.ParseSps(exact.get(), static_cast<std::uint32_t>(bytes.size()), &size.width,
                            &size.height);
  return size;
}

std::vector<std::uint8_t> FullHd(const std::vector<std::uint32_t>& crop) {
  BitWriter bits = ParameterSetStart(77);
  return ParameterSetTail(bits, 120, 68, true, crop).Bytes();
}

TEST(ParameterSet, CountsCroppingInUnitsOfTwoSamplesAndDoublesTheHeightOfFieldCodedStreams) {
  EXPECT_EQ(Parse(FullHd({})), (Size{true, 1920, 1088}));
  EXPECT_EQ(Parse(FullHd({0, 0, 0, 4})), (Size{true, 1920, 1080}));
  EXPECT_EQ(Parse(FullHd({1, 2, 3, 4})), (Size{true, 1914, 1074}));
  BitWriter bits = ParameterSetStart(77);
  EXPECT_EQ(Parse(ParameterSetTail(bits, 45, 18, false).Bytes()), (Size{true, 720, 576}));
}

TEST(ParameterSet, ReadsChromaElementsForExactlyTheProfilesThatHaveThem) {
  const std::vector<int> with_chroma = {100, 110, 122, 244, 44, 83, 86, 118};
  for (int profile = 0; profile < 256; ++profile) {
    BitWriter bits = ParameterSetStart(static_cast<std::uint8_t>(profile));
    if (std::ranges::count(with_chroma, profile) != 0) {
      bits.Ue(1).Ue(0).Ue(0).U(1, 0).U(1, 0);
    }
    EXPECT_EQ(Parse(ParameterSetTail(bits, 80, 45).Bytes()), (Size{true, 1280, 720})) << profile;
  }
}

TEST(ParameterSet, WalksOverScalingListsAndStopsEachAtItsZero) {
  BitWriter bits = ParameterSetStart(100);
  bits.Ue(3).U(1, 1).Ue(2).Ue(2).U(1, 1).U(1, 1);  // 4:4:4, separate planes, matrix present
  bits.U(1, 1).Se(-8);                             // ends at once: next scale 0
  bits.U(1, 1);
  for (int i = 0; i < 16; ++i) {
    bits.Se(i % 2 == 0 ? 127 : -128);
  }
  bits.U(4, 0);                // four lists absent
  bits.U(1, 1).Se(3).Se(-11);  // a long list that ends early
  bits.U(1, 1);
  for (int i = 0; i < 64; ++i) {
    bits.Se(1);
  }
  EXPECT_EQ(Parse(ParameterSetTail(bits, 20, 15).Bytes()), (Size{true, 320, 240}));
}

TEST(ParameterSet, WalksOverAPictureOrderCycle) {
  BitWriter bits = ParameterSetStart(66);
  bits.Ue(0).Ue(1).U(1, 0).Se(-5).Se(9).Ue(3).Se(1).Se(-2).Se(70000).Ue(1).U(1, 0);
  bits.Ue(19).Ue(14).U(1, 1).U(1, 1).U(1, 0).U(1, 1);
  EXPECT_EQ(Parse(bits.Bytes()), (Size{true, 320, 240}));
}

TEST(ParameterSet, TakesTheLongestExpGolombCodes) {
  BitWriter bits;
  bits.U(8, 66).U(16, 0);
  bits.U(33, 0).U(32, 0xFFFFFFFF);  // 33 prefix bits all 0, then 32 value bits: modulo 2^32
  EXPECT_EQ(Parse(ParameterSetTail(bits, 20, 15).Bytes()), (Size{true, 320, 240}));
}

TEST(ParameterSet, FailsWhereverItIsCutAndNeverDependsOnWhatFollows) {
  BitWriter bits = ParameterSetStart(100);
  bits.Ue(1).Ue(0).Ue(0).U(1, 0).U(1, 0);
  const std::vector<std::uint8_t> whole =
      ParameterSetTail(bits, 120, 68, true, {0, 0, 0, 4}).Bytes();
  for (std::size_t length = 0; length < whole.size(); ++length) {
    EXPECT_EQ(Parse({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)}), kFailed);
  }
  for (const int byte : {0x00, 0x03, 0xFF}) {
    std::vector<std::uint8_t> longer = whole;
    longer.insert(longer.end(), 300, static_cast<std::uint8_t>(byte));
    EXPECT_EQ(Parse(longer), (Size{true, 1920, 1080}));
  }
}

// All zeros and all ones are the worst a stranger can send: endless prefixes, endless cycles.
TEST(ParameterSet, EndsOnAnyContent) {
  std::uint32_t random = 1;
  for (int round = 0; round < 20'000; ++round) {
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(round % 60));
    for (auto& byte : bytes) {
      random = random * 1664525 + 1013904223;
      byte = static_cast<std::uint8_t>(round % 3 == 0 ? 0 : random >> 24);
    }
    if (!bytes.empty()) {
      bytes[0] = round % 2 == 0 ? 100 : 66;
    }
    Parse(bytes);
  }
}

}  // namespace
}  // namespace kestrelbridge
