// One connection of the server: an HTTP exchange, or a viewer. The loop's thread alone.
#pragma once

#include <libwebsockets.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>

#include "console/http_answers.h"
#include "console/message.h"
#include "console/unit_history.h"

namespace kestrelbridge::console {

enum class ConnectionKind { kHttp, kVideo, kState };

// The page closes no socket for these reasons: they are for its eyes.
enum CloseCode : std::uint16_t {
  kNoCommand = 1008,
  kTooLong = 1009,
  kTryLater = 1013,
  kSignIn = 4401,
};

struct Connection {
  lws* wsi = nullptr;
  std::uint64_t number = 0;
  ConnectionKind kind = ConnectionKind::kHttp;
  std::string peer;
  std::chrono::steady_clock::time_point last_event;
  bool is_established = false;  // a WebSocket
  bool is_counted = false;      // among the viewers of the picture

  Request request;  // of a POST, until its body is there
  Answer answer;    // what is being sent
  std::size_t sent = 0;

  std::string session;  // by which a viewer came in; empty where none is needed
  std::deque<SharedMessage> queue;
  std::size_t queued_bytes = 0;
  std::uint16_t close_code = 0;
  const char* close_text = "";

  UnitHistory::Place place;  // in the video
  std::string told_reason;   // why it does not come; empty: it streams

  std::string incoming;  // a message that comes in pieces
  double command_credit = 0;
  std::chrono::steady_clock::time_point credit_time;
};

// What lies unread for a viewer of the state before he is sent away.
inline constexpr std::size_t kMostQueued = 512'000;
inline constexpr std::size_t kLongestMessage = 4'096;  // of the page

// Sends text to him when he takes it. A viewer with too much unread is closed.
void Enqueue(Connection& connection, const SharedMessage& message);

// Closes the WebSocket, with a code for the page, as soon as it can be told.
void CloseWith(Connection& connection, std::uint16_t code, const char* text);

// Whether one more command now is no flood: ten at once, then five a second.
bool MayCommand(Connection& connection, std::chrono::steady_clock::time_point now);

// --- HTTP -------------------------------------------------------------------------------------

// What the headers say, while the library has them.
Request ReadRequest(lws* wsi, const std::string& peer);

// One header; empty when it is absent or too long to be meant.
std::string HeaderOf(lws* wsi, lws_token_indexes token);

// Both return what the library's callback returns: not 0 closes the connection.
int SendHead(Connection& connection, std::string_view host);
int SendBody(Connection& connection);

}  // namespace kestrelbridge::console
