// Pieces of the JSON that --json prints. Pure, but for the clock.
#pragma once

#include <string>
#include <string_view>

namespace kestrelbridge::tools {

// "time":1732400000.123, in seconds since 1970: every object that --json prints has it.
[[nodiscard]] std::string JsonTime();

// The shortest text that gives the same number again; null for what JSON has no number for.
[[nodiscard]] std::string JsonNumber(double value);

// A number where the text is one as JSON writes it and a double holds all of it, else a string.
[[nodiscard]] std::string JsonValue(std::string_view text);

}  // namespace kestrelbridge::tools
