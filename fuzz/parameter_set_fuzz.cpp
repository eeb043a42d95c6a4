// The parser reads nothing but the parameter set: never a byte at or beyond its length, and what
// follows the set changes nothing.
//
//   input:   the bytes after the NAL unit header

#include <array>

#include "fuzz/fuzz_stage.h"
#include "h264parse.h"

namespace kestrelbridge::test {
namespace {

struct Parsed {
  bool whole = false;
  std::uint32_t width = 7;  // what a failed parse leaves alone
  std::uint32_t height = 7;
  bool operator==(const Parsed&) const = default;
};

// Of the first `length` of the bytes.
Parsed Parse(std::span<const std::uint8_t> bytes, std::size_t length) {
  H264Parse parser;
  Parsed parsed;
  parsed.whole = parser.ParseSps(bytes.data(), static_cast<std::uint32_t>(length), &parsed.width,
                                 &parsed.height);
  return parsed;
}

}  // namespace
}  // namespace kestrelbridge::test

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kestrelbridge;
  using namespace kestrelbridge::test;
  const std::vector<std::uint8_t> exact = ExactCopy({data, size});
  const Parsed parsed = Parse(exact, size);
  Require(parsed.whole || parsed == Parsed{}, "a parse that fails stores nothing");
  // Enough for every prefix and value that could run on.
  for (const std::uint8_t following : std::array<std::uint8_t, 3>{0x00, 0xA5, 0xFF}) {
    std::vector<std::uint8_t> longer = exact;
    longer.insert(longer.end(), 64, following);
    Require(Parse(longer, size) == parsed, "no byte behind the given length is looked at");
    Require(!parsed.whole || Parse(longer, longer.size()) == parsed,
            "what follows a parameter set changes nothing");
  }
  // A set that is whole at some length fails at every shorter one and stays the same at the others.
  Parsed before;
  for (std::size_t length = 0; length <= std::min<std::size_t>(size, 256); ++length) {
    const Parsed now = Parse(exact, length);
    Require(!before.whole || now == before, "a parameter set ends where it ends");
    before = now;
  }
  return 0;
}
