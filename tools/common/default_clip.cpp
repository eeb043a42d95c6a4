#include "tools/common/default_clip.h"

#include <array>
#include <filesystem>
#include <system_error>

#include "tools/common/tool_error.h"

namespace kestrelbridge::tools {
namespace {

// From the program's folder: installed, or in a build.
constexpr std::array kPlaces = {"../share/kestrelbridge/clips/test-pattern-720p30.h264",
                                "../../tools/clips/test-pattern-720p30.h264"};

}  // namespace

std::string DefaultClip() {
  std::error_code unknown;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", unknown);
  for (const char* const place : kPlaces) {
    const auto path = (program.parent_path() / place).lexically_normal();
    if (std::filesystem::exists(path, unknown)) {
      return path;
    }
  }
  throw ToolError("which clip? The one that comes with kestrelctl is not there: --clip FILE");
}

}  // namespace kestrelbridge::tools
