// Who may look: one user, from a file.
#pragma once

#include <string>

namespace kestrelbridge::rtsp {

struct User {
  std::string name;
  std::string password;
};

// The file's first line: NAME:PASSWORD, printable ASCII. Throws ToolError when the file cannot be
// read, holds anything else, or may be read by everybody.
[[nodiscard]] User ReadUser(const std::string& path);

}  // namespace kestrelbridge::rtsp
