#include "console/events.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>

#include "console/news.h"
#include "console/viewers.h"

namespace kestrelbridge::console {
namespace {

constexpr std::size_t kMostOfOneAddress = 128;  // so that one of them is not all

int Respond(Server& server, Connection& connection) {
  const Request request = std::exchange(connection.request, {});
  connection.answer = AnswerTo(request, server.console, SteadyNow());
  if (const std::string& ended = connection.answer.ended_session; !ended.empty()) {
    for (const auto& [wsi, other] : server.connections) {
      if (other->is_established && other->session == ended) {
        CloseWith(*other, kSignIn, "sign in");
      }
    }
  }
  return SendHead(connection, server.gate.Knows(request.host) ? request.host : "");
}

int OnHttp(Server& server, Connection& connection) {
  connection.request = ReadRequest(connection.wsi, connection.peer);
  const std::string length = HeaderOf(connection.wsi, WSI_TOKEN_HTTP_CONTENT_LENGTH);
  if (connection.request.method == Method::kPost) {
    return length.empty() ? -1 : 0;  // it is answered when its body is there
  }
  // A body that nobody wants would be taken for the next request.
  return length.empty() || length == "0" ? Respond(server, connection) : -1;
}

int OnBody(Connection& connection, std::string_view piece) {
  if (connection.request.body.size() + piece.size() > kLongestBody) {
    return -1;
  }
  connection.request.body += piece;
  return 0;
}

bool MayConnect(Server& server, const std::string& peer) {
  const auto of_peer = std::ranges::count_if(
      server.connections, [&](const auto& entry) { return entry.second->peer == peer; });
  const bool may = server.connections.size() < kMostConnections &&
                   static_cast<std::size_t>(of_peer) < kMostOfOneAddress;
  server.counters.connections_refused += may ? 0 : 1;
  return may;
}

std::string PeerOf(lws* wsi) {
  std::array<char, 64> text{};
  lws_get_peer_simple(wsi, text.data(), text.size());
  return text.data();
}

int OnNewClient(Server& server, lws* wsi) {
  const std::string peer = PeerOf(wsi);
  if (!MayConnect(server, peer)) {
    return -1;
  }
  auto connection = std::make_unique<Connection>();
  connection->wsi = wsi;
  connection->peer = peer;
  connection->last_event = SteadyNow();
  server.connections.emplace(wsi, std::move(connection));
  return 0;
}

void OnGone(Server& server, lws* wsi) {
  const Connection* const gone = Find(server, wsi);
  if (gone == nullptr) {
    return;
  }
  if (gone->is_established) {
    OnViewerGone(server, *gone);
  }
  server.connections.erase(wsi);
}

int OnConnectionEvent(Server& server, Connection& connection, lws_callback_reasons reason, void* in,
                      std::size_t length) {
  const std::string_view text(static_cast<const char*>(in), in == nullptr ? 0 : length);
  connection.last_event = SteadyNow();
  switch (reason) {
    case LWS_CALLBACK_HTTP_CONFIRM_UPGRADE:
      return OnUpgrade(server, connection, static_cast<const char*>(in));
    case LWS_CALLBACK_HTTP:
      return OnHttp(server, connection);
    case LWS_CALLBACK_HTTP_BODY:
      return OnBody(connection, text);
    case LWS_CALLBACK_HTTP_BODY_COMPLETION:
      return Respond(server, connection);
    case LWS_CALLBACK_HTTP_WRITEABLE:
      return SendBody(connection);
    case LWS_CALLBACK_ESTABLISHED:
      OnEstablished(server, connection);
      return 0;
    case LWS_CALLBACK_SERVER_WRITEABLE:
      return OnViewerWritable(server, connection);
    case LWS_CALLBACK_RECEIVE:
      OnMessage(server, connection, text);
      return 0;
    default:
      return 0;
  }
}

int Dispatch(Server& server, lws* wsi, lws_callback_reasons reason, void* in, std::size_t length) {
  switch (reason) {
    case LWS_CALLBACK_EVENT_WAIT_CANCELLED:
      TakeNews(server);
      return 0;
    case LWS_CALLBACK_SERVER_NEW_CLIENT_INSTANTIATED:
      return OnNewClient(server, wsi);
    case LWS_CALLBACK_CLOSED:
    case LWS_CALLBACK_WSI_DESTROY:
      OnGone(server, wsi);
      return 0;
    default:
      break;
  }
  Connection* const connection = Find(server, wsi);
  return connection == nullptr ? 0 : OnConnectionEvent(server, *connection, reason, in, length);
}

}  // namespace

// Nothing may be thrown through the library: it is C.
int OnEvent(lws* wsi, lws_callback_reasons reason, void* /*user*/, void* in, std::size_t length) {
  auto* const server = static_cast<Server*>(lws_context_user(lws_get_context(wsi)));
  try {
    return server == nullptr ? 0 : Dispatch(*server, wsi, reason, in, length);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kestrelconsole: a connection is closed: %s\n", error.what());
    return -1;
  }
}

}  // namespace kestrelbridge::console
