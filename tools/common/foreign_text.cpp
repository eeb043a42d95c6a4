#include "tools/common/foreign_text.h"

#include <cjson/cJSON.h>
#include <locale.h>

#include <algorithm>
#include <cstddef>
#include <cwchar>

namespace kestrelbridge::tools {
namespace {

constexpr std::string_view kReplacement = "\uFFFD";

constexpr bool IsPrintableAscii(char character) { return character >= ' ' && character <= '~'; }

// Of the UTF-8 character at the text's start; 0 when it is none. Precondition: not empty.
std::size_t Utf8Length(std::string_view text) {
  constexpr wchar_t kFirstSurrogate = 0xD800;
  constexpr wchar_t kLastSurrogate = 0xDFFF;
  constexpr wchar_t kHighest = 0x10FFFF;
  static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  const locale_t before = uselocale(utf8);
  std::mbstate_t state{};
  wchar_t code = 0;
  const std::size_t length = std::mbrtowc(&code, text.data(), text.size(), &state);
  uselocale(before);
  if (length > text.size() || code > kHighest ||
      (code >= kFirstSurrogate && code <= kLastSurrogate)) {
    return 0;
  }
  return std::max<std::size_t>(length, 1);  // a NUL, too, is a character
}

}  // namespace

std::string PrintableText(std::string_view text) {
  std::string printable(text);
  std::ranges::replace_if(
      printable, [](char character) { return !IsPrintableAscii(character); }, '?');
  return printable;
}

std::string JsonString(std::string_view text) {
  std::string valid;
  while (!text.empty()) {
    const std::size_t length = text[0] == '\0' ? 0 : Utf8Length(text);
    valid += length == 0 ? kReplacement : text.substr(0, length);
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  cJSON* const string = cJSON_CreateString(valid.c_str());
  char* const printed = cJSON_PrintUnformatted(string);
  std::string json = printed;
  cJSON_free(printed);
  cJSON_Delete(string);
  return json;
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
