// What the share counts, in one record: the loop that adds is the thread that writes them out.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace kestrelbridge::share {

// Telemetry records by kind, in the order in which a new consumer gets the latest of each. What is
// none of the daemon's three kinds is passed on like them, but not kept.
enum class RecordKind : std::size_t { kText, kStatus, kHistogram, kOther };
inline constexpr std::size_t kRecordKinds = 4;
inline constexpr std::array<const char*, kRecordKinds> kRecordKindNames = {"text", "status",
                                                                           "histogram", "other"};

// Commands by who sent them.
enum class CommandSource : std::size_t { kMainApp, kControlSocket };
inline constexpr std::size_t kCommandSources = 2;
inline constexpr std::array<const char*, kCommandSources> kCommandSourceNames = {"main_app",
                                                                                 "control"};

struct ShareCounters {
  std::array<std::uint64_t, kRecordKinds> records{};  // that came from the daemon
  std::uint64_t forward_failures = 0;                 // that the system did not take to the main
                                                      // application's place
  std::uint64_t delivered = 0;                        // records that consumers were given
  std::uint64_t dropped = 0;         // records that a consumer had no room for: it did not read
  std::uint64_t consumers_seen = 0;  // that have connected to the telemetry socket
  std::uint64_t connections_refused = 0;                  // beyond the limit, of both sockets
  std::array<std::uint64_t, kCommandSources> commands{};  // passed on to the daemon
  std::array<std::uint64_t, kCommandSources> commands_refused{};  // too long, or nobody to pass
                                                                  // them to
};

}  // namespace kestrelbridge::share
