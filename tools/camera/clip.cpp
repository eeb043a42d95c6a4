#include "tools/camera/clip.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

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
  const auto start = std::ranges::search(clip, std::span(kLongStartCode).subspan(1));
  return start.end() != clip.end() &&
         (*start.end() == kVideoParameterSet || *start.end() == kDelimiter);
}

const char* KindOf(std::span<const std::uint8_t> clip) {
  if (clip.size() > 8 && std::ranges::equal(clip.subspan(4, 4), kBoxType)) {
    return "is an MP4 file";
  }
  return IsH265(clip) ? "is H.265" : "holds no H.264 access unit";
}

// Where the clip is that comes with kestrelctl, from its program's folder: installed, or in a
// build.
constexpr std::array kDefaultClips = {"../share/kestrelbridge/clips/test-pattern-720p30.h264",
                                      "../../tools/clips/test-pattern-720p30.h264"};

}  // namespace

std::string DefaultClip() {
  std::error_code unknown;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", unknown);
  for (const char* const clip : kDefaultClips) {
    const auto path = (program.parent_path() / clip).lexically_normal();
    if (std::filesystem::exists(path, unknown)) {
      return path;
    }
  }
  throw ToolError("which clip? The one that comes with kestrelctl is not there: --clip FILE");
}

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
