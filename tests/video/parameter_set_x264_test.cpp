// The parameter-set parser held against another's reading of the standard: streams that x264 makes.

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "h264parse.h"
#include "support/child_process.h"

namespace kestrelbridge {
namespace {

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
    H264Parse parser;
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    ASSERT_TRUE(parser.ParseSps(reinterpret_cast<const std::uint8_t*>(&bytes[5]),
                                static_cast<std::uint32_t>(bytes.size() - 5), &width, &height));
    EXPECT_EQ(std::to_string(width) + "x" + std::to_string(height), size) << row;
  }
  unlink(clip.c_str());
}

}  // namespace
}  // namespace kestrelbridge
