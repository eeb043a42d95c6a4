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
  if (units.empty()) {
    throw ToolError(
        "the clip of " + std::to_string(clip.size()) +
        " bytes holds no H.264 access unit; it has to be a plain Annex B stream. From a "
        "video file: \"ffmpeg -i INPUT -c:v libx264 -f h264 FILE\"");
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
