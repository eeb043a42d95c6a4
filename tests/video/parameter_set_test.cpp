#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "h264parse.h"
#include "support/child_process.h"
#include "video/parameter_set_bits.h"

namespace kestrelbridge::test {
namespace {

// In a heap block of exactly its size, so that AddressSanitizer sees a read beyond.
// "1280x720"; "failed" for a parameter set that leaves width and height as they were.
std::string Parse(const std::vector<std::uint8_t>& bytes) {
  const std::vector<std::uint8_t> exact(bytes);
  H264Parse parser;
  std::uint32_t width = 7;
  std::uint32_t height = 7;
  if (!parser.ParseSps(exact.data(), static_cast<std::uint32_t>(bytes.size()), &width, &height)) {
    return width == 7 && height == 7 ? "failed" : "failed, but changed them";
  }
  return std::to_string(width) + "x" + std::to_string(height);
}

std::vector<std::uint8_t> FullHd(const std::vector<std::uint32_t>& crop) {
  BitWriter bits = ParameterSetStart(77);
  return ParameterSetTail(bits, 120, 68, true, crop).Bytes();
}

TEST(ParameterSet, CountsCroppingInUnitsOfTwoSamplesAndDoublesTheHeightOfFieldCodedStreams) {
  EXPECT_EQ(Parse(FullHd({})), "1920x1088");
  EXPECT_EQ(Parse(FullHd({0, 0, 0, 4})), "1920x1080");
  EXPECT_EQ(Parse(FullHd({1, 2, 3, 4})), "1914x1074");
  BitWriter bits = ParameterSetStart(77);
  EXPECT_EQ(Parse(ParameterSetTail(bits, 45, 18, false).Bytes()), "720x576");
}

TEST(ParameterSet, ReadsChromaElementsForExactlyTheProfilesThatHaveThem) {
  const std::vector<int> with_chroma = {100, 110, 122, 244, 44, 83, 86, 118};
  for (int profile = 0; profile < 256; ++profile) {
    BitWriter bits = ParameterSetStart(static_cast<std::uint8_t>(profile));
    if (std::ranges::count(with_chroma, profile) != 0) {
      bits.Ue(1).Ue(0).Ue(0).U(1, 0).U(1, 0);
    }
    EXPECT_EQ(Parse(ParameterSetTail(bits, 80, 45).Bytes()), "1280x720") << profile;
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
  EXPECT_EQ(Parse(ParameterSetTail(bits, 20, 15).Bytes()), "320x240");
}

TEST(ParameterSet, WalksOverEachScalingListToItsOwnEnd) {
  constexpr int kLists = 8;
  for (int present = 0; present <= kLists; ++present) {  // one of them, or all
    BitWriter bits = ParameterSetStart(100);
    bits.Ue(1).Ue(0).Ue(0).U(1, 0).U(1, 1);
    for (int list = 0; list < kLists; ++list) {
      const bool is_there = present == list || present == kLists;
      bits.U(1, is_there ? 1 : 0);
      for (int entry = 0; is_there && entry < (list < 6 ? 16 : 64); ++entry) {
        bits.Se(1);
      }
    }
    EXPECT_EQ(Parse(ParameterSetTail(bits, 80, 45).Bytes()), "1280x720") << present;
  }
}

TEST(ParameterSet, ElementsAreReadByHandUntilTheDataEnds) {
  const std::vector<std::int32_t> values = {0, 1, -1, 2, -2, 3, 100, -100, INT32_MAX, -INT32_MAX};
  BitWriter bits;
  bits.U(3, 0b101);
  for (const std::int32_t value : values) {
    bits.Se(value).Ue(static_cast<std::uint32_t>(value));
  }
  bits.U(33, 0).U(32, 5);  // 33 prefix bits all 0, then 32 value bits
  const std::size_t fill = (8 - bits.size() % 8) % 8;
  const std::vector<std::uint8_t> bytes = bits.U(static_cast<unsigned>(fill), 0).Bytes();
  H264Parse parser;
  for (int round = 0; round < 2; ++round) {
    parser.Start(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    EXPECT_EQ(parser.ReadBit(), 1U);
    EXPECT_EQ(parser.ReadBit(), 0U);
    EXPECT_EQ(parser.ReadBit(), 1U);
    for (const std::int32_t value : values) {
      EXPECT_EQ(parser.ReadSe(), value);
      EXPECT_EQ(parser.ReadUe(), static_cast<std::uint32_t>(value));
    }
    EXPECT_EQ(parser.ReadUe(), 4U) << "2^32 - 1 + 5, modulo 2^32";
    for (std::size_t i = 0; i < fill; ++i) {
      parser.ReadBit();
    }
    EXPECT_TRUE(parser.IsSound());
    EXPECT_EQ(parser.ReadBit(), 0U);
    EXPECT_FALSE(parser.IsSound());
  }
}

TEST(ParameterSet, FailsWhereverItIsCut) {
  const std::vector<std::uint8_t> whole = FullHd({0, 0, 0, 4});
  for (std::size_t length = 0; length < whole.size(); ++length) {
    EXPECT_EQ(Parse({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)}),
              "failed");
  }
}

// Another's reading of the standard.
TEST(ParameterSet, HasThePictureSizeThatX264WasGiven) {
  const std::string clip = testing::TempDir() + "/" + std::to_string(getpid()) + ".h264";
  // Cropping other than of 4:2:0 frames is counted in other units by the standard; the camera never
  // sends that, so those rows have sizes of whole macroblocks.
  for (const std::string row :
       {"1920x1080 -profile:v main -pix_fmt yuv420p", "130x98 -profile:v baseline -refs 4",
        "1912x1072 -profile:v high -bf 2", "3840x2160 -profile:v high -preset ultrafast",
        "640x358 -profile:v high10 -pix_fmt yuv420p10le",
        "640x368 -profile:v high422 -pix_fmt yuv422p",
        "640x368 -profile:v high444 -pix_fmt yuv444p",
        "320x240 -profile:v high -x264-params cqm=jvt",
        "720x576 -profile:v main -flags +ilme+ildct"}) {
    const std::string size = row.substr(0, row.find(' '));
    ChildProcess ffmpeg({"sh", "-c",
                         "ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=rate=25:size=" + size +
                             " -frames:v 2 -pix_fmt yuv420p -c:v libx264" +
                             row.substr(size.size()) + " -f h264 " + clip});
    ASSERT_EQ(ffmpeg.WaitForExit(), ExitedWith(0)) << ffmpeg.Error();
    std::ifstream file(clip, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    ASSERT_GT(bytes.size(), 5U);
    ASSERT_EQ(bytes[4] & 0x0F, 7) << "x264 opens its streams with the parameter set";
    EXPECT_EQ(Parse({bytes.begin() + 5, bytes.end()}), size) << row;
  }
  unlink(clip.c_str());
}

}  // namespace
}  // namespace kestrelbridge::test
