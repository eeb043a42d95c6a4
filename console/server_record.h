// The server as one record, and what its parts share. The loop's thread alone, but for what the
// threads of `ring` and `feed` do by themselves.
#pragma once

#include <libwebsockets.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "console/box_feed.h"
#include "console/box_view.h"
#include "console/command_desk.h"
#include "console/connection.h"
#include "console/http_answers.h"
#include "console/ring_follower.h"
#include "console/server.h"

namespace kestrelbridge::console {

struct Server;

struct Timer {
  lws_sorted_usec_list_t entry{};  // the first member: the library gives it back
  Server* server = nullptr;
};

struct Server {
  Server(const ConsoleOptions& options, const std::string& version, std::string machine)
      : gate(options.password, KnownHosts(machine, options.allowed_hosts),
             !options.certificate.empty()),
        view(version, options.view_only),
        console{.gate = gate,
                .history = history,
                .counters = counters,
                .version = version,
                .machine = std::move(machine),
                .view_only = options.view_only} {}

  Gate gate;
  UnitHistory history;
  ConsoleCounters counters;
  BoxView view;
  CommandDesk desk;
  Console console;
  std::unordered_map<lws*, std::unique_ptr<Connection>> connections;
  std::uint64_t last_number = 0;
  Timer tick;
  Timer command_tick;
  bool stopping = false;
  lws_context* context = nullptr;
  // Their threads wake the loop: they end before it does.
  std::optional<RingFollower> ring;
  std::optional<BoxFeed> feed;
};

inline std::chrono::steady_clock::time_point SteadyNow() {
  return std::chrono::steady_clock::now();
}

inline Now WholeNow() {
  const auto since_1970 = std::chrono::system_clock::now().time_since_epoch();
  return {.steady = SteadyNow(),
          .unix_ms = std::chrono::duration_cast<std::chrono::milliseconds>(since_1970).count()};
}

inline Connection* Find(Server& server, lws* wsi) {
  const auto found = server.connections.find(wsi);
  return found == server.connections.end() ? nullptr : found->second.get();
}

template <typename Action>
void ForEach(Server& server, ConnectionKind kind, Action&& action) {
  for (const auto& [wsi, connection] : server.connections) {
    if (connection->kind == kind && connection->is_established) {
      action(*connection);
    }
  }
}

inline SharedMessage MessageOf(std::string_view text) { return std::make_shared<Message>(text); }

}  // namespace kestrelbridge::console
