#include "tools/common/text_layout.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

namespace kestrelbridge::tools {
namespace {

constexpr std::size_t kNarrowest = 40;
constexpr std::size_t kLeastBeside = 30;  // for an explanation beside them
constexpr std::size_t kIndent = 6;        // of one below

constexpr std::string_view kCommand = "  kestrelctl ";  // an example, to be copied whole

// Appends the words, the first one at column `at`, further lines indented.
void AppendWords(std::string& out, std::string_view words, std::size_t at, std::size_t indent,
                 std::size_t width) {
  bool is_first = true;
  while (!words.empty()) {
    const std::size_t begin = words.find_first_not_of(' ');
    if (begin == std::string_view::npos) {
      break;
    }
    words.remove_prefix(begin);
    std::string_view word = words.substr(0, words.find(' '));
    words.remove_prefix(word.size());
    const auto begin_line = [&] {
      out += "\n" + std::string(indent, ' ');
      at = indent;
      is_first = true;
    };
    if (!is_first && at + 1 + word.size() > width) {
      begin_line();
    }
    while (at + word.size() > width) {  // a word that is longer than the line
      out += word.substr(0, width - at);
      word.remove_prefix(width - at);
      begin_line();
    }
    out += is_first ? "" : " ";
    out += word;
    at += word.size() + (is_first ? 0 : 1);
    is_first = false;
  }
  out += '\n';
}

// Behind the names of an option or a subcommand, or alone where those are too long for their
// column.
bool HasExplanation(std::string_view line, std::size_t leading) {
  return leading == kNamesWidth || (leading == 2 && line.size() > kNamesWidth &&
                                    line[kNamesWidth - 1] == ' ' && line[kNamesWidth] != ' ');
}

void AppendExplained(std::string& out, std::string_view names, std::string_view explanation,
                     std::size_t width) {
  const bool is_beside = width >= kNamesWidth + kLeastBeside;
  const std::size_t last = names.find_last_not_of(' ') + 1;  // 0 where there are only blanks
  if (is_beside) {
    out += names;
  } else if (last > 0) {
    out += names.substr(0, last);
    out += '\n';
  }
  const std::size_t indent = is_beside ? kNamesWidth : kIndent;
  out += std::string(is_beside ? kNamesWidth - names.size() : kIndent, ' ');
  AppendWords(out, explanation, indent, indent, width);
}

void AppendLine(std::string& out, std::string_view line, std::size_t width) {
  const std::size_t leading = std::min(line.find_first_not_of(' '), line.size());
  if (line.size() <= width || leading == line.size() || line.starts_with(kCommand)) {
    out += line;
    out += '\n';
  } else if (HasExplanation(line, leading)) {
    AppendExplained(out, line.substr(0, kNamesWidth), line.substr(kNamesWidth), width);
  } else {
    out += line.substr(0, leading);
    AppendWords(out, line.substr(leading), leading, leading, width);
  }
}

}  // namespace

std::size_t WidthOf(int descriptor) {
  winsize size{};
  const bool is_known = ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return is_known ? std::max<std::size_t>(size.ws_col, kNarrowest) : kUsualWidth;
}

std::string Explained(const std::string& names, const std::string& explanation, std::size_t width) {
  std::string text;
  AppendExplained(text, std::string_view(names).substr(0, kNamesWidth), explanation, width);
  return text;
}

std::vector<std::string> BrokenLines(const std::string& text, std::size_t width) {
  std::string broken;
  AppendWords(broken, text, 0, 0, width);
  std::vector<std::string> lines;
  for (std::size_t begin = 0, end = 0; (end = broken.find('\n', begin)) != std::string::npos;
       begin = end + 1) {
    lines.push_back(broken.substr(begin, end - begin));
  }
  return lines;
}

std::string WrapHelp(const std::string& text, std::size_t width) {
  std::string wrapped;
  for (std::string_view rest = text; !rest.empty();) {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    AppendLine(wrapped, rest.substr(0, end), width);
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return wrapped;
}

}  // namespace kestrelbridge::tools
