// Text for the width that there is.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kestrelbridge::tools {

inline constexpr std::size_t kUsualWidth = 80;
inline constexpr std::size_t kNamesWidth = 30;  // CLI11's column of names

// Columns of the terminal behind the descriptor, at least 40; kUsualWidth where it is none.
[[nodiscard]] std::size_t WidthOf(int descriptor);

// Names and what explains them, beside each other or below; with a line end.
[[nodiscard]] std::string Explained(const std::string& names, const std::string& explanation,
                                    std::size_t width);

// The text in lines of that width, broken at blanks.
[[nodiscard]] std::vector<std::string> BrokenLines(const std::string& text, std::size_t width);

// Breaks the lines of a help text at blanks. What explains an option stays beside its names, or
// goes below them where there is little room. Examples stay whole, to be copied.
[[nodiscard]] std::string WrapHelp(const std::string& text, std::size_t width);

}  // namespace kestrelbridge::tools
