// What the console answers to a request over HTTP: a fixed table of paths, and nothing else. Knows
// no socket.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "console/counters.h"
#include "console/gate.h"
#include "console/unit_history.h"

namespace kestrelbridge::console {

enum class Method { kGet, kPost, kOther };

// Every text is a stranger's.
struct Request {
  Method method = Method::kOther;
  std::string path = {};
  std::string host = {};
  std::string origin = {};
  std::string accepts = {};  // encodings
  std::string content_type = {};
  std::string known_tag = {};  // If-None-Match
  std::string body = {};
  Credentials credentials = {};
};

inline constexpr std::size_t kLongestBody = 1'024;

struct Answer {
  unsigned status = 200;
  std::string_view type = "text/plain; charset=utf-8";
  std::vector<std::pair<std::string_view, std::string>> headers = {};  // lower case names
  std::string body = {};
  std::span<const std::uint8_t> fixed = {};      // instead of the body
  std::shared_ptr<const void> keeps_fixed = {};  // as long as it is sent
  std::string ended_session = {};                // its sockets are to be closed
};

// What the answers tell of.
struct Console {
  Gate& gate;
  const UnitHistory& history;
  ConsoleCounters& counters;
  std::string version;
  std::string machine;
  bool view_only = false;
};

Answer AnswerTo(const Request& request, Console& console, SteadyTime now);

// The headers that every answer carries. `host` has been found to be one of ours, or is empty.
std::vector<std::pair<std::string_view, std::string>> SecurityHeaders(std::string_view host);

// Prometheus text of all that the box counts: the daemon's file, the share's, and ours.
std::string AllMetrics(const ConsoleCounters& counters);

}  // namespace kestrelbridge::console
