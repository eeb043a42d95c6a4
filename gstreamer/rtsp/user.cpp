#include "gstreamer/rtsp/user.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "base/text_file.h"
#include "tools/common/tool_error.h"

namespace kestrelbridge::rtsp {
namespace {

constexpr std::size_t kLongestLine = 256;

void ExpectPrivate(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    throw tools::ToolError("the password file " + path + ": " + std::strerror(errno));
  }
  if ((status.st_mode & S_IRWXO) != 0) {
    throw tools::ToolError("everybody may read or write the password file " + path +
                           ": chmod o= " + path);
  }
}

bool IsPrintable(char character) { return character >= ' ' && character <= '~'; }

}  // namespace

User ReadUser(const std::string& path) {
  ExpectPrivate(path);
  std::array<char, kLongestLine + 2> text{};  // one character too many, and the NUL
  ReadTextFile(path.c_str(), text);
  const std::string_view all(text.data());
  const std::string_view line = all.substr(0, all.find('\n'));
  const std::size_t colon = line.find(':');
  if (line.empty()) {
    throw tools::ToolError("the password file " + path +
                           " is empty, no plain file, or not for this user to read");
  }
  // A quote would end the name in the header of a player's answer.
  const bool is_sound = line.size() <= kLongestLine && colon != std::string_view::npos &&
                        colon != 0 && colon + 1 != line.size() &&
                        std::ranges::all_of(line, IsPrintable) &&
                        line.substr(0, colon).find_first_of("\"\\") == std::string_view::npos;
  if (!is_sound) {
    throw tools::ToolError("the password file " + path +
                           ": its first line is no NAME:PASSWORD of printable ASCII, at most " +
                           std::to_string(kLongestLine) + " characters");
  }
  return {.name = std::string(line.substr(0, colon)),
          .password = std::string(line.substr(colon + 1))};
}

}  // namespace kestrelbridge::rtsp
