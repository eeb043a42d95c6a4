// The clip that comes with kestrelctl.
#pragma once

#include <string>

namespace kestrelbridge::tools {

// Its path, as installed or in a build. Throws ToolError when it is not there.
[[nodiscard]] std::string DefaultClip();

}  // namespace kestrelbridge::tools
