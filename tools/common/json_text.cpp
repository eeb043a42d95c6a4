#include "tools/common/json_text.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdio>

#include "tools/common/foreign_text.h"

namespace kestrelbridge::tools {
namespace {

bool IsDigit(char character) { return character >= '0' && character <= '9'; }

// -12, 0, 3.50; no exponents, and no 007.
bool IsJsonNumber(std::string_view text) {
  constexpr std::size_t kMostDigits = 15;  // that every double holds
  text.remove_prefix(text.starts_with('-') ? 1 : 0);
  const std::string_view whole = text.substr(0, text.find('.'));
  const std::string_view fraction = text.substr(std::min(whole.size() + 1, text.size()));
  return !whole.empty() && std::ranges::all_of(whole, IsDigit) &&
         std::ranges::all_of(fraction, IsDigit) && whole.size() + fraction.size() <= kMostDigits &&
         (whole.size() == 1 || whole[0] != '0') && (whole == text || !fraction.empty());
}

}  // namespace

std::string JsonTime() {
  const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
  char text[40];
  std::snprintf(text, sizeof text, "\"time\":%.3f", now.count());
  return text;
}

std::string JsonNumber(double value) {
  if (!std::isfinite(value)) {
    return "null";
  }
  char text[32];
  return {text, std::to_chars(text, text + sizeof text, value).ptr};
}

std::string JsonValue(std::string_view text) {
  return IsJsonNumber(text) ? std::string(text) : JsonString(text);
}

}  // namespace kestrelbridge::tools
