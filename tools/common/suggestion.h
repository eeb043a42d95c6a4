// What somebody may have meant by a word that does not exist.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kestrelbridge::tools {

// " (did you mean --stats?)" for the nearest of the known words, or nothing where none is near.
[[nodiscard]] std::string Suggestion(std::string_view word, const std::vector<std::string>& known);

}  // namespace kestrelbridge::tools
