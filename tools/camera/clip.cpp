#include "tools/camera/clip.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "tools/common/tool_error.h"

namespace kestrelbridge::tools {
namespace {

constexpr std::size_t kMaxUnitLength = 65'535;  // 16 bits in the unit header
constexpr std::array<std::uint8_t, 4> kLongStartCode = {0x00, 0x00, 0x00, 0x01};

constexpr std::array<std::uint8_t, 4> kBoxType = {'f', 't', 'y', 'p'};  // of MP4, behind a length

// How a stream of another kind becomes one that will do.
constexpr char kRecipe[] =
    "ffmpeg -i INPUT -an -c:v libx264 -bf 0 -g 30 -pix_fmt yuv420p -x264-params "
    "repeat-headers=1:aud=0 -f h264 FILE";

// H.265 opens with a video parameter set or a delimiter, whose first bytes no H.264 stream opens
// with.
bool IsH265(std::span<const std::uint8_t> clip) {
  constexpr std::uint8_t kVideoParameterSet = 0x40;
  constexpr std::uint8_t kDelimiter = 0x46;
  const auto start =
      std::search(clip.begin(), clip.end(), kLongStartCode.begin() + 1, kLongStartCode.end());
  if (clip.end() - start < static_cast<std::ptrdiff_t>(kLongStartCode.size())) {
    return false;
  }
  const std::uint8_t first = start[kLongStartCode.size() - 1];
  return first == kVideoParameterSet || first == kDelimiter;
}

const char* KindOf(std::span<const std::uint8_t> clip) {
  if (clip.size() > 8 && std::ranges::equal(clip.subspan(4, 4), kBoxType)) {
    return "is an MP4 file";
  }
  return IsH265(clip) ? "is H.265" : "holds no H.264 access unit";
}

}  // namespace

std::vector<std::uint8_t> ReadClip(const std::string& path) {
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  file.peek();  // a folder opens, but does not read
  if (file.bad() || !file.is_open()) {
    throw ToolError("cannot read the clip " + path + ": " + std::strerror(errno));
  }
  file.clear();
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::vector<AccessUnit> CutClip(std::span<const std::uint8_t> clip) {
  std::vector<AccessUnit> units = SplitAccessUnits(clip);
  if (units.empty() || IsH265(clip)) {
    throw ToolError(
        "the clip of " + std::to_string(clip.size()) + " bytes " + KindOf(clip) +
        "; it has to be a plain H.264 stream (Annex B). From any video file: " + kRecipe);
  }
  for (std::size_t number = 0; number < units.size(); ++number) {
    if (units[number].size() > kMaxUnitLength) {
      throw ToolError("unit " + std::to_string(number) + " of the clip has " +
                      std::to_string(units[number].size()) + " bytes, the camera sends at most " +
                      std::to_string(kMaxUnitLength) + "; encode the clip with a lower bit rate");
    }
  }
  return units;
}

std::vector<std::size_t> UnitsWithoutLongStartCode(std::span<const AccessUnit> units) {
  std::vector<std::size_t> numbers;
  for (std::size_t number = 0; number < units.size(); ++number) {
    const AccessUnit unit = units[number];
    if (unit.size() < kLongStartCode.size() ||
        !std::ranges::equal(unit.first(kLongStartCode.size()), kLongStartCode)) {
      numbers.push_back(number);
    }
  }
  return numbers;
}

}  // namespace kestrelbridge::tools
