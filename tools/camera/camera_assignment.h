// The simulated camera's state in words: "iso_set=400".
#pragma once

#include <span>
#include <string>

#include "tools/camera/camera_model.h"

// NOLINTNEXTLINE(readability-identifier-naming): the library's name
namespace CLI {
class Validator;  // its header takes seconds to compile: only who makes options includes it
}

namespace kestrelbridge::tools {

// A camera at its start: an Osmo Action in video mode, everything automatic, its card empty; then
// changed by NAME=WORD texts. Names are those of telemetry (and short ones, such as "mode"), words
// are those that telemetry reports. Of the sensitivity and the exposure time, the one in use and
// the one asked for, each follows the other unless both are given. Throws ToolError for a name or
// word that does not exist; the text names it and lists those that do.
CameraModel StartModel(std::span<const std::string> assignments);

// For options: refuses what StartModel does not take.
CLI::Validator AssignmentValidator();

}  // namespace kestrelbridge::tools
