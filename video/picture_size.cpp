#include "video/picture_size.h"

#include <cstdio>

#include "base/log.h"
#include "base/run_paths.h"
#include "base/text_file.h"
#include "h264parse.h"

namespace kestrelbridge {
namespace {

struct PictureSize {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  bool operator==(const PictureSize&) const = default;
};

// Touched by the camera's receive thread alone; 0 x 0 until the first parameter set.
constinit PictureSize current{};
constinit H264Parse parser{};

// Two of the camera's sizes are not those of its pictures: 1912 falls short of 1920, and 1088 is
// 1080 with all of its last row of macroblocks.
PictureSize PictureOf(PictureSize coded) {
  if (coded.width == 1912) {
    coded.width = 1920;
  }
  if (coded.height == 1088) {
    coded.height = 1080;
  }
  return coded;
}

void WriteNumber(const char* path, std::uint32_t number) {
  char text[10];
  std::snprintf(text, sizeof text, "%d", static_cast<int>(number));
  WriteTextFile(path, text);  // a missing folder is no reason to stop the picture
}

}  // namespace

void FollowPictureSize(std::span<const std::uint8_t> parameter_set) {
  PictureSize coded;
  if (!parser.ParseSps(parameter_set.data(), static_cast<std::uint32_t>(parameter_set.size()),
                       &coded.width, &coded.height)) {
    return;
  }
  const PictureSize picture = PictureOf(coded);
  if (picture == current) {
    return;
  }
  Log("Live stream video resolution changed to %dx%d\n", static_cast<int>(picture.width),
      static_cast<int>(picture.height));
  current = picture;
  WriteNumber(kVideoWidthPath, picture.width);
  WriteNumber(kVideoHeightPath, picture.height);
}

}  // namespace kestrelbridge
