// The parameter-set parser held against ffprobe, on streams that x264 makes.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "h264parse.h"

namespace {

// What the shell command prints.
std::string OutputOf(const std::string& command) {
  std::FILE* pipe = popen(command.c_str(), "r");
  std::string output;
  char part[256];
  while (pipe != nullptr && std::fgets(part, sizeof part, pipe) != nullptr) {
    output += part;
  }
  EXPECT_EQ(pipe == nullptr ? -1 : pclose(pipe), 0) << command;
  return output;
}

std::vector<std::uint8_t> ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(ParameterSet, AgreesWithFfprobeOnWhatX264Makes) {
  struct Row {
    int width;
    int height;
    const char* profile;
    const char* pixel_format;
    const char* more;
  };
  // Cropping other than of 4:2:0 frames is counted in other units by the standard; the camera never
  // sends that, so those rows have sizes of whole macroblocks.
  const std::vector<Row> rows = {
      {1280, 720, "baseline", "yuv420p", ""},
      {1920, 1080, "main", "yuv420p", ""},
      {1920, 1080, "high", "yuv420p", "-bf 2"},
      {1912, 1072, "high", "yuv420p", ""},
      {854, 480, "high", "yuv420p", "-refs 4"},
      {130, 98, "baseline", "yuv420p", ""},
      {3840, 2160, "high", "yuv420p", "-preset ultrafast"},
      {640, 358, "high10", "yuv420p10le", ""},
      {640, 368, "high422", "yuv422p", ""},
      {640, 368, "high444", "yuv444p", ""},
      {320, 240, "high", "yuv420p", "-x264-params cqm=jvt"},
      {720, 576, "main", "yuv420p", "-flags +ilme+ildct"},
  };
  std::string folder_name = testing::TempDir() + "/kestrelbridge.XXXXXX";
  ASSERT_NE(mkdtemp(folder_name.data()), nullptr);
  const std::filesystem::path folder = folder_name;
  const std::string clip = (folder / "clip.h264").string();
  for (const Row& row : rows) {
    const std::string size = std::to_string(row.width) + "x" + std::to_string(row.height);
    SCOPED_TRACE(size + " " + row.profile);
    OutputOf("ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=" + size +
             ":rate=25 -frames:v 2 -c:v libx264 -profile:v " + row.profile + " -pix_fmt " +
             row.pixel_format + " " + row.more + " -f h264 " + clip);
    const std::string probed = OutputOf(
        "ffprobe -v error -select_streams v:0 -show_entries stream=width,height -of "
        "csv=p=0:s=x " +
        clip);
    const auto bytes = ReadFile(clip);
    ASSERT_GT(bytes.size(), 5U);
    ASSERT_EQ(bytes[4] & 0x0F, 7) << "x264 opens its streams with the parameter set";
    H264Parse parser;
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    ASSERT_TRUE(parser.ParseSps(bytes.data() + 5, static_cast<std::uint32_t>(bytes.size() - 5),
                                &width, &height));
    EXPECT_EQ(std::to_string(width) + "x" + std::to_string(height) + "\n", probed);
  }
  std::filesystem::remove_all(folder);
}

}  // namespace
