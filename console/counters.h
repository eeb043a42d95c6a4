// What the console counts. The loop's thread alone.
#pragma once

#include <cstdint>

namespace kestrelbridge::console {

struct ConsoleCounters {
  std::uint64_t viewers = 0;              // of the picture, now
  std::uint64_t viewers_seen = 0;         // that have come
  std::uint64_t units_sent = 0;           // access units, counted for each viewer
  std::uint64_t bytes_sent = 0;           // of those
  std::uint64_t units_skipped = 0;        // that a viewer did not get because he was too slow
  std::uint64_t commands = 0;             // passed on to the share
  std::uint64_t commands_refused = 0;     // no such word, not confirmed, view only, too many
  std::uint64_t sign_ins_refused = 0;     // with a wrong password, or too early
  std::uint64_t requests_refused = 0;     // of a foreign host name or page
  std::uint64_t connections_refused = 0;  // beyond a limit
};

}  // namespace kestrelbridge::console
