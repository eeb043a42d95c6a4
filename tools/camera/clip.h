// The H.264 file that the simulated camera streams.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "tools/camera/annexb.h"

namespace kestrelbridge::tools {

// The file's bytes. Throws ToolError when it cannot be read.
std::vector<std::uint8_t> ReadClip(const std::string& path);

// The clip's access units, at least one, each of a length that the camera's unit header can tell.
// Throws ToolError otherwise. The units point into the clip.
std::vector<AccessUnit> CutClip(std::span<const std::uint8_t> clip);

// Numbers of the units that do not open with a 4-byte start code.
std::vector<std::size_t> UnitsWithoutLongStartCode(std::span<const AccessUnit> units);

}  // namespace kestrelbridge::tools
