// Bytes from outside, made fit for a terminal, a log and a script.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace kestrelbridge::tools {

// As it is, but for what is no printable ASCII: a question mark for each such byte, so that no text
// from outside moves a terminal's cursor.
[[nodiscard]] std::string PrintableText(std::string_view text);

// A JSON string with its quotes, valid whatever the bytes: what is no UTF-8 becomes U+FFFD.
[[nodiscard]] std::string JsonString(std::string_view text);

// Two digits for each byte, behind the prefix.
inline constexpr char kLowerHex[] = "0123456789abcdef";
inline constexpr char kUpperHex[] = "0123456789ABCDEF";
[[nodiscard]] std::string HexText(std::span<const std::uint8_t> bytes, std::string_view prefix,
                                  const char (&digits)[17]);

}  // namespace kestrelbridge::tools
