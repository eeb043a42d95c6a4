#include "tools/common/screen.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "tools/common/tool_error.h"

namespace kestrelbridge::tools {
namespace {

std::size_t Rows() {
  constexpr std::size_t kUsualRows = 24;
  winsize size{};
  return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 ? size.ws_row : kUsualRows;
}

}  // namespace

void Output::Write(const std::string& text) {
  if (std::fputs(text.c_str(), stdout) == EOF || std::fflush(stdout) == EOF) {
    if (errno != EPIPE) {
      throw ToolError(std::string("cannot write to standard output: ") + std::strerror(errno));
    }
    closed_ = true;
  }
}

bool HasScreen() {
  const char* const term = std::getenv("TERM");
  return isatty(STDOUT_FILENO) == 1 && term != nullptr && std::string_view(term) != "dumb";
}

void Screen::Draw(std::vector<std::string> lines) {
  std::string text = started_ ? "\x1b[H" : "\x1b[?25l\x1b[2J\x1b[H";  // the cursor is hidden
  started_ = true;
  if (const std::size_t rows = Rows(); lines.size() > rows) {
    const std::size_t hidden = lines.size() - rows + 1;
    lines.resize(rows - 1);
    lines.push_back(std::to_string(hidden) + " more rows; a higher window shows them");
  }
  text += "\x1b[?7l";  // a line too long is cut, not wrapped
  for (std::size_t row = 0; row < lines.size(); ++row) {
    text += (row == 0 ? "" : "\r\n") + lines[row] + "\x1b[K";
  }
  output_.Write(text + "\x1b[J\x1b[?7h");
}

void Screen::Close() {
  if (started_) {
    output_.Write("\x1b[?25h\n");
  }
}

}  // namespace kestrelbridge::tools
