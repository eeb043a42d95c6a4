#include "tools/common/foreign_text.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>

namespace kestrelbridge::tools {
namespace {

constexpr bool IsPrintableAscii(char character) { return character >= ' ' && character <= '~'; }

// One row for each length of a UTF-8 sequence: the lead byte's fixed bits, and the lowest code
// point that may be written so long.
struct Utf8Form {
  unsigned mask;
  unsigned lead;
  std::size_t length;
  std::uint32_t lowest;
};
constexpr Utf8Form kUtf8Forms[] = {
    {0x80, 0x00, 1, 0},
    {0xE0, 0xC0, 2, 0x80},
    {0xF0, 0xE0, 3, 0x800},
    {0xF8, 0xF0, 4, 0x10000},
};

bool IsCodePoint(std::uint32_t code) {
  constexpr std::uint32_t kHighest = 0x10FFFF;
  const bool is_surrogate = code >= 0xD800 && code <= 0xDFFF;
  return code <= kHighest && !is_surrogate;
}

// Of the character at the text's start; 0 when it is no UTF-8. Precondition: not empty.
std::size_t Utf8Length(std::string_view text) {
  const unsigned first = static_cast<unsigned char>(text[0]);
  for (const Utf8Form& form : kUtf8Forms) {
    if ((first & form.mask) != form.lead) {
      continue;
    }
    if (text.size() < form.length) {
      return 0;
    }
    std::uint32_t code = first & ~form.mask;
    for (const char character : text.substr(1, form.length - 1)) {
      const unsigned byte = static_cast<unsigned char>(character);
      if ((byte & 0xC0) != 0x80) {
        return 0;
      }
      code = code << 6 | (byte & 0x3F);
    }
    return code >= form.lowest && IsCodePoint(code) ? form.length : 0;
  }
  return 0;
}

std::string EscapedAscii(char character) {
  if (character == '"' || character == '\\') {
    return {'\\', character};
  }
  if (IsPrintableAscii(character)) {
    return {character};
  }
  char escape[8];
  std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(character));
  return escape;
}

}  // namespace

std::string PrintableText(std::string_view text) {
  std::string printable(text);
  std::ranges::replace_if(
      printable, [](char character) { return !IsPrintableAscii(character); }, '?');
  return printable;
}

std::string JsonString(std::string_view text) {
  std::string json = "\"";
  while (!text.empty()) {
    const std::size_t length = Utf8Length(text);
    if (length == 0) {
      json += "\\ufffd";
    } else if (length == 1) {
      json += EscapedAscii(text[0]);
    } else {
      json += text.substr(0, length);
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return json + '"';
}

std::string HexText(std::span<const std::uint8_t> bytes, std::string_view prefix,
                    const char (&digits)[17]) {
  std::string text;
  for (const std::uint8_t byte : bytes) {
    text += prefix;
    text += digits[byte >> 4];
    text += digits[byte & 0x0F];
  }
  return text;
}

}  // namespace kestrelbridge::tools
