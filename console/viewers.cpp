#include "console/viewers.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>

#include "console/news.h"

namespace kestrelbridge::console {
namespace {

constexpr std::size_t kMostViewers = 64;
constexpr int kUnitsAtOnce = 16;     // for one viewer, before others have their turn
constexpr int kMostUnsent = 32'768;  // that the kernel takes ahead: what lies there is late already

bool IsSocketPath(std::string_view path) { return path == "/video" || path == "/state"; }

int Refuse(Server& server, lws* wsi, unsigned status, const char* text) {
  ++server.counters.requests_refused;
  lws_return_http_status(wsi, status, text);
  return 1;
}

std::size_t CountOf(Server& server, ConnectionKind kind) {
  std::size_t count = 0;
  ForEach(server, kind, [&](Connection&) { ++count; });
  return count;
}

bool SendMessage(Connection& viewer, Message& message, lws_write_protocol kind) {
  return lws_write(viewer.wsi, message.content().data(), message.size(), kind) >= 0;
}

bool HasMore(const Server& server, const Connection& viewer) {
  return !viewer.queue.empty() ||
         (viewer.kind == ConnectionKind::kVideo && server.history.HasUnitFor(viewer.place));
}

// One message. False when the connection is broken.
bool SendNext(Server& server, Connection& viewer) {
  if (!viewer.queue.empty()) {
    const SharedMessage message = viewer.queue.front();
    viewer.queue.pop_front();
    viewer.queued_bytes -= message->size();
    return SendMessage(viewer, *message, LWS_WRITE_TEXT);
  }
  const std::uint64_t skipped = viewer.place.skipped;
  const Unit* const unit = server.history.Take(viewer.place, SteadyMicroseconds());
  if (unit == nullptr) {
    return true;
  }
  server.counters.units_skipped += viewer.place.skipped - skipped;
  ++server.counters.units_sent;
  server.counters.bytes_sent += unit->message->size() - kUnitHeaderSize;
  return SendMessage(viewer, *unit->message, LWS_WRITE_BINARY);
}

// Why a command that could be sent is not.
std::string_view WhyNot(Server& server, Connection& viewer, const PageCommand& command) {
  if (server.console.view_only) {
    return "this console is for viewing only";
  }
  if (!command.refusal.empty()) {
    return command.refusal;
  }
  if (!MayCommand(viewer, SteadyNow()) || server.desk.IsFull()) {
    return "too many commands at once";
  }
  return {};
}

void TakeCommand(Server& server, Connection& viewer, const PageCommand& command) {
  if (const auto why = WhyNot(server, viewer, command); !why.empty()) {
    ++server.counters.commands_refused;
    Enqueue(viewer, MessageOf(CommandStateJson(command.id, "refused", why)));
    return;
  }
  ++server.counters.commands;
  const std::uint64_t ticket =
      server.desk.Open(viewer.number, command, server.view.facts().text, SteadyNow());
  Enqueue(viewer, MessageOf(CommandDesk::FirstState(command)));
  server.feed->Send({.ticket = ticket, .text = "!" + command.request.json});
  WatchCommands(server);
}

}  // namespace

int OnUpgrade(Server& server, Connection& connection, const char* protocol) {
  const Request request = ReadRequest(connection.wsi, connection.peer);
  if (protocol == nullptr || strcasecmp(protocol, "websocket") != 0 ||
      !IsSocketPath(request.path)) {
    return Refuse(server, connection.wsi, HTTP_STATUS_NOT_FOUND, "No such socket");
  }
  if (!server.gate.Knows(request.host)) {
    return Refuse(server, connection.wsi, HTTP_STATUS_FORBIDDEN, "This box is not called that");
  }
  if (!IsSameOrigin(request.origin, request.host)) {
    return Refuse(server, connection.wsi, HTTP_STATUS_FORBIDDEN, "That comes from another page");
  }
  connection.kind = request.path == "/video" ? ConnectionKind::kVideo : ConnectionKind::kState;
  connection.session = server.gate.SessionOf(request.credentials.cookies, SteadyNow());
  if (!server.gate.MayPass(request.credentials, SteadyNow())) {
    connection.close_code = kSignIn;
    connection.close_text = "sign in";
  }
  return 0;
}

void OnEstablished(Server& server, Connection& viewer) {
  if (CountOf(server, viewer.kind) >= kMostViewers) {
    ++server.counters.connections_refused;
    CloseWith(viewer, kTryLater, "too many viewers");
  }
  viewer.number = ++server.last_number;
  viewer.is_established = true;
  viewer.request = {};
  if (viewer.close_code != 0) {
    lws_callback_on_writable(viewer.wsi);
    return;
  }
  if (viewer.kind == ConnectionKind::kState) {
    for (const std::string& text : server.view.Greeting(WholeNow())) {
      Enqueue(viewer, MessageOf(text));
    }
    return;
  }
  setsockopt(lws_get_socket_fd(viewer.wsi), IPPROTO_TCP, TCP_NOTSENT_LOWAT, &kMostUnsent,
             sizeof kMostUnsent);
  viewer.is_counted = true;
  ++server.counters.viewers;
  ++server.counters.viewers_seen;
  TellReasons(server);
  lws_callback_on_writable(viewer.wsi);
}

int OnViewerWritable(Server& server, Connection& viewer) {
  if (viewer.close_code != 0) {
    std::array<unsigned char, 64> text{};
    const std::size_t length = std::min(std::strlen(viewer.close_text), text.size());
    std::memcpy(text.data(), viewer.close_text, length);
    lws_close_reason(viewer.wsi, static_cast<lws_close_status>(viewer.close_code), text.data(),
                     length);
    return -1;
  }
  for (int sent = 0; sent < kUnitsAtOnce && HasMore(server, viewer); ++sent) {
    if (sent != 0 && lws_send_pipe_choked(viewer.wsi) != 0) {
      break;
    }
    if (!SendNext(server, viewer)) {
      return -1;
    }
  }
  if (HasMore(server, viewer)) {
    lws_callback_on_writable(viewer.wsi);
  }
  return 0;
}

void OnMessage(Server& server, Connection& viewer, std::string_view piece) {
  if (viewer.close_code != 0) {
    return;
  }
  if (viewer.kind != ConnectionKind::kState) {
    CloseWith(viewer, kNoCommand, "nothing is to be said here");
    return;
  }
  if (viewer.incoming.size() + piece.size() > kLongestMessage) {
    CloseWith(viewer, kTooLong, "longer than a command can be");
    return;
  }
  viewer.incoming += piece;
  if (lws_is_final_fragment(viewer.wsi) == 0 || lws_remaining_packet_payload(viewer.wsi) != 0) {
    return;
  }
  const std::string text = std::exchange(viewer.incoming, {});
  const auto command = lws_frame_is_binary(viewer.wsi) != 0 ? std::nullopt : ParsePageCommand(text);
  if (!command) {
    ++server.counters.commands_refused;
    CloseWith(viewer, kNoCommand, "that is no command");
    return;
  }
  TakeCommand(server, viewer, *command);
}

void OnViewerGone(Server& server, const Connection& viewer) {
  server.desk.Forget(viewer.number);
  server.counters.viewers -= viewer.is_counted ? 1 : 0;
}

}  // namespace kestrelbridge::console
