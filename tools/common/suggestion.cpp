#include "tools/common/suggestion.h"

#include <algorithm>
#include <cstddef>
#include <numeric>

namespace kestrelbridge::tools {
namespace {

// How many letters have to be put in, taken out or replaced.
std::size_t Distance(std::string_view from, std::string_view to) {
  std::vector<std::size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), 0U);
  for (std::size_t i = 0; i < from.size(); ++i) {
    std::size_t diagonal = row[0]++;
    for (std::size_t j = 0; j < to.size(); ++j) {
      const std::size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
    }
  }
  return row.back();
}

}  // namespace

std::string Suggestion(std::string_view word, const std::vector<std::string>& known) {
  constexpr std::size_t kLongestWord = 40;
  // Most of the letters have to be right (two that are swapped are two wrong ones); a beginning of
  // three letters will do.
  std::size_t nearest = word.size() < 4 ? 2 : std::max<std::size_t>(2, word.size() / 3) + 1;
  std::string_view meant;
  for (const std::string& candidate : known) {
    if (word.size() > kLongestWord) {
      break;
    }
    const bool begins_so = word.size() >= 3 && candidate.starts_with(word);
    const std::size_t distance = begins_so ? 1 : Distance(word, candidate);
    if (distance < nearest) {
      nearest = distance;
      meant = candidate;
    }
  }
  return meant.empty() ? "" : " (did you mean " + std::string(meant) + "?)";
}

}  // namespace kestrelbridge::tools
