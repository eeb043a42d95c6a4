// Bytes from outside, made fit for a terminal, a log and a script.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace kestrelbridge::tools {

// As it is, but for what is no printable ASCII: a question mark for each such byte, so that no text
// from outside moves a terminal's cursor.
std::string PrintableText(std::string_view text);

// A JSON string with its quotes, valid whatever the bytes: what is no UTF-8 becomes U+FFFD.
std::string JsonString(std::string_view text);

// Two digits for each byte, with the separator between them.
std::string HexText(std::span<const std::uint8_t> bytes, std::string_view separator);

}  // namespace kestrelbridge::tools
