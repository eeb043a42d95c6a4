// The numbers in a word of the vocabulary, read while compiling.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace kestrelbridge {

using SpelledNumbers = std::array<int, 3>;

// Up to three decimal numbers with one character between them, 0 for those that are missing:
// "1920x1080@240" gives 1920, 1080 and 240, "auto" three zeros. Only for the words of our own
// tables.
constexpr SpelledNumbers NumbersOf(std::string_view word) {
  SpelledNumbers numbers{};
  std::size_t index = 0;
  for (const char character : word) {
    if (character < '0' || character > '9') {
      ++index;
    } else if (index < numbers.size()) {
      numbers[index] = numbers[index] * 10 + (character - '0');
    }
  }
  return numbers;
}
static_assert(NumbersOf("1920x1080@240") == SpelledNumbers{1920, 1080, 240});

}  // namespace kestrelbridge
