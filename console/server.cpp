#include "console/server.h"

#include <arpa/inet.h>
#include <libwebsockets.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <unordered_map>

#include "console/box_feed.h"
#include "console/box_view.h"
#include "console/command_desk.h"
#include "console/connection.h"
#include "console/ring_follower.h"
#include "net/socket_address.h"
#include "tools/common/foreign_text.h"
#include "tools/common/host_port.h"
#include "tools/common/stop_signal.h"
#include "tools/common/tool_error.h"

namespace kestrelbridge::console {
namespace {

using tools::ToolError;

constexpr std::size_t kMostConnections = 256;
constexpr std::size_t kMostOfOneAddress = 128;  // so that one of them is not all
constexpr std::size_t kMostViewers = 64;
constexpr int kUnitsAtOnce = 16;     // for one viewer, before others have their turn
constexpr int kMostUnsent = 32'768;  // that the kernel takes ahead: what lies there is late already
constexpr lws_usec_t kTickUs = 1'000'000;
constexpr lws_usec_t kCommandTickUs = 100'000;
constexpr unsigned kHttpPatienceS = 10;  // with somebody who does not go on
constexpr int kKeepAliveS = 5;
// Who is not a viewer and does nothing is closed, whatever the library thinks of it.
constexpr std::chrono::seconds kLongestIdle{20};
// A viewer who is heard no more: asked after some seconds, closed after some more.
constexpr lws_retry_bo_t kIdlePolicy = {nullptr, 0, 0, 15, 30, 0};

struct Server;

struct Timer {
  lws_sorted_usec_list_t entry{};  // the first member: the library gives it back
  Server* server = nullptr;
};

struct Server {
  Server(const ConsoleOptions& options, std::string machine)
      : gate(options.password, KnownHosts(machine, options.allowed_hosts),
             !options.certificate.empty()),
        view(KESTRELBRIDGE_VERSION, options.view_only),
        console{.gate = gate,
                .history = history,
                .counters = counters,
                .version = KESTRELBRIDGE_VERSION,
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

std::chrono::steady_clock::time_point SteadyNow() { return std::chrono::steady_clock::now(); }

Now WholeNow() {
  const auto since_1970 = std::chrono::system_clock::now().time_since_epoch();
  return {.steady = SteadyNow(),
          .unix_ms = std::chrono::duration_cast<std::chrono::milliseconds>(since_1970).count()};
}

Connection* Find(Server& server, lws* wsi) {
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

SharedMessage MessageOf(std::string_view text) { return std::make_shared<Message>(text); }

// --- the news
// -------------------------------------------------------------------------------------

void TellAll(Server& server) {
  for (const std::string& text : server.view.TakeMessages()) {
    const SharedMessage message = MessageOf(text);
    ForEach(server, ConnectionKind::kState, [&](Connection& viewer) { Enqueue(viewer, message); });
  }
}

void TellOutcomes(Server& server, const std::vector<CommandDesk::Outcome>& outcomes) {
  for (const CommandDesk::Outcome& outcome : outcomes) {
    ForEach(server, ConnectionKind::kState, [&](Connection& viewer) {
      if (viewer.number == outcome.viewer) {
        Enqueue(viewer, MessageOf(outcome.message));
      }
    });
  }
}

void TakeFeedNews(Server& server) {
  const auto news = server.feed->Take();
  if (!news) {
    return;
  }
  const Now now = WholeNow();
  server.stopping = server.stopping || news->stop;
  server.view.TakeFeed(*news, now);
  for (const tools::TelemetryRecord& record : news->records) {
    server.view.TakeRecord(record, now);
    TellOutcomes(server, server.desk.Take(record));
  }
  for (const FailedCommand& failed : news->failed) {
    TellOutcomes(server, server.desk.Fail(failed.ticket, failed.why));
  }
  server.view.Judge(server.history, now);
}

void TakeUnits(Server& server) {
  RingNews news = server.ring->Take();
  const Now now = WholeNow();
  server.view.TakeRing(news, now);
  if (news.units.empty()) {
    return;
  }
  for (Unit& unit : news.units) {
    server.history.Add(std::move(unit));
  }
  if (!server.view.facts().units_come || !server.view.facts().has_keyframe) {
    server.view.Judge(server.history, now);
  }
  ForEach(server, ConnectionKind::kVideo,
          [](Connection& viewer) { lws_callback_on_writable(viewer.wsi); });
}

void TakeNews(Server& server) {
  if (!server.ring || !server.feed) {
    return;
  }
  TakeUnits(server);
  TakeFeedNews(server);
  TellAll(server);
}

// Why a viewer sees nothing, whenever that changes.
void TellReasons(Server& server) {
  const auto problem = WhyNoPicture(server.view.facts());
  const std::string reason = problem ? std::string(problem->id) : "";
  ForEach(server, ConnectionKind::kVideo, [&](Connection& viewer) {
    // He has begun already: a keyframe is not what he waits for.
    const std::string his = viewer.place.next && reason == "no_keyframe" ? "" : reason;
    if (viewer.told_reason != his) {
      viewer.told_reason = his;
      Enqueue(viewer, MessageOf(his.empty() ? R"({"type":"streaming"})"
                                            : R"({"type":"waiting","reason":)" +
                                                  tools::JsonString(problem->id) + R"(,"text":)" +
                                                  tools::JsonString(problem->text) + "}"));
    }
  });
}

void CloseIdle(Server& server, std::chrono::steady_clock::time_point now) {
  for (const auto& [wsi, connection] : server.connections) {
    if (!connection->is_established && now - connection->last_event > kLongestIdle) {
      lws_set_timeout(wsi, PENDING_TIMEOUT_USER_OK, LWS_TO_KILL_ASYNC);
    }
  }
}

void OnTick(lws_sorted_usec_list_t* entry) {
  Server& server = *reinterpret_cast<Timer*>(entry)->server;
  const Now now = WholeNow();
  CloseIdle(server, now.steady);
  server.view.Judge(server.history, now);
  server.view.Tick(now);
  TellReasons(server);
  TellAll(server);
  lws_sul_schedule(server.context, 0, &server.tick.entry, OnTick, kTickUs);
}

void OnCommandTick(lws_sorted_usec_list_t* entry) {
  Server& server = *reinterpret_cast<Timer*>(entry)->server;
  TellOutcomes(server, server.desk.Expire(SteadyNow()));
  if (!server.desk.IsIdle()) {
    lws_sul_schedule(server.context, 0, &server.command_tick.entry, OnCommandTick, kCommandTickUs);
  }
}

// --- viewers
// --------------------------------------------------------------------------------------

bool IsSocketPath(std::string_view path) { return path == "/video" || path == "/state"; }

int Refuse(Server& server, lws* wsi, unsigned status, const char* text) {
  ++server.counters.requests_refused;
  lws_return_http_status(wsi, status, text);
  return 1;
}

// The headers are there, and the WebSocket is not yet.
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

std::size_t CountOf(Server& server, ConnectionKind kind) {
  std::size_t count = 0;
  ForEach(server, kind, [&](Connection&) { ++count; });
  return count;
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
  ++server.counters.viewers;
  ++server.counters.viewers_seen;
  TellReasons(server);
  lws_callback_on_writable(viewer.wsi);
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

// --- commands
// -------------------------------------------------------------------------------------

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
  lws_sul_schedule(server.context, 0, &server.command_tick.entry, OnCommandTick, kCommandTickUs);
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

// --- HTTP
// -----------------------------------------------------------------------------------------

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

// --- the library's events
// -------------------------------------------------------------------------

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
    server.desk.Forget(gone->number);
  }
  server.connections.erase(wsi);
  server.counters.viewers = CountOf(server, ConnectionKind::kVideo);
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

// --- start
// ----------------------------------------------------------------------------------------

// A unit goes to the kernel in one piece: by itself the library would hand over 4 kB, keep a copy
// of the rest, and come back for each further 4 kB.
constexpr std::size_t kLargestPiece = 1 << 17;

constexpr lws_protocols kProtocols[] = {
    {"kestrel", OnEvent, 0, kLongestMessage, 0, nullptr, kLargestPiece},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0},
};

void LogOfLibrary(int /*level*/, const char* line) {
  const std::string_view text(line);
  std::fprintf(stderr, "kestrelconsole: %s\n",
               tools::PrintableText(text.substr(0, text.find('\n'))).c_str());
}

// The library does not tell why it could not.
void TryListening(UdpPeer place) {
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const sockaddr_in address = ToSockaddr(place);
  const bool bound =
      bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
      listen(socket, 1) == 0;
  const int error = errno;
  close(socket);
  if (!bound) {
    throw ToolError("cannot listen on " + tools::HostPortText(place) + ": " + std::strerror(error) +
                    (error == EADDRINUSE ? " (\"ss -tlnp\" names the program)" : ""));
  }
}

struct ContextDeleter {
  void operator()(lws_context* context) const { lws_context_destroy(context); }
};
using OwnedContext = std::unique_ptr<lws_context, ContextDeleter>;

OwnedContext OpenContext(Server& server) {
  lws_set_log_level(LLL_ERR, LogOfLibrary);
  lws_context_creation_info info{};
  info.port = CONTEXT_PORT_NO_LISTEN;
  info.options = LWS_SERVER_OPTION_EXPLICIT_VHOSTS | LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT |
                 LWS_SERVER_OPTION_DISABLE_IPV6;
  info.user = &server;
  info.gid = -1;
  info.uid = -1;
  info.fd_limit_per_thread = kMostConnections + 32;
  info.max_http_header_pool2 = kMostConnections;
  info.retry_and_idle_policy = &kIdlePolicy;
  OwnedContext context(lws_create_context(&info));
  if (!context) {
    throw ToolError("the WebSocket library does not start; its messages stand above");
  }
  return context;
}

lws_vhost* OpenVhost(lws_context* context, const ConsoleOptions& options) {
  const std::string place = tools::HostPortText(options.listen);
  const std::string address = place.substr(0, place.rfind(':'));
  lws_context_creation_info info{};
  info.port = options.listen.port;
  info.iface = address.c_str();
  info.protocols = kProtocols;
  // Without the first the library would serve a vhost with a certificate without TLS.
  info.options = LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT | LWS_SERVER_OPTION_DISABLE_IPV6 |
                 LWS_SERVER_OPTION_FAIL_UPON_UNABLE_TO_BIND;
  info.server_string = "kestrelconsole";
  info.timeout_secs = kHttpPatienceS;
  info.keepalive_timeout = kKeepAliveS;
  info.retry_and_idle_policy = &kIdlePolicy;
  info.alpn = "http/1.1";
  if (!options.certificate.empty()) {
    info.ssl_cert_filepath = options.certificate.c_str();
    info.ssl_private_key_filepath = options.key.c_str();
  }
  lws_vhost* const vhost = lws_create_vhost(context, &info);
  if (vhost == nullptr) {
    throw ToolError("cannot serve " + place +
                    (options.certificate.empty()
                         ? ""
                         : ": is " + options.certificate + " a certificate (PEM), and " +
                               options.key + " its key?"));
  }
  return vhost;
}

std::string MachineName() {
  std::array<char, 256> name{};
  gethostname(name.data(), name.size() - 1);
  return name.data();
}

}  // namespace

void RunConsole(const ConsoleOptions& options) {
  const int stop_signal = tools::OpenStopSignal();
  std::signal(SIGPIPE, SIG_IGN);  // nobody may be reading the log
  TryListening(options.listen);
  Server server(options, MachineName());
  const OwnedContext context = OpenContext(server);
  server.context = context.get();
  lws_vhost* const vhost = OpenVhost(context.get(), options);
  UdpPeer place = options.listen;
  place.port = static_cast<std::uint16_t>(lws_get_vhost_listen_port(vhost));
  const auto wake = [&server] { lws_cancel_service(server.context); };
  server.ring.emplace(wake);
  server.feed.emplace(wake, stop_signal);
  server.tick.server = server.command_tick.server = &server;
  lws_sul_schedule(server.context, 0, &server.tick.entry, OnTick, 1);
  std::printf("kestrelconsole: http%s://%s/\n", options.certificate.empty() ? "" : "s",
              tools::HostPortText(place).c_str());
  std::fflush(stdout);
  while (!server.stopping && lws_service(server.context, 0) >= 0) {
  }
  server.feed.reset();
  server.ring.reset();
  lws_sul_schedule(server.context, 0, &server.tick.entry, nullptr, LWS_SET_TIMER_USEC_CANCEL);
  lws_sul_schedule(server.context, 0, &server.command_tick.entry, nullptr,
                   LWS_SET_TIMER_USEC_CANCEL);
}

}  // namespace kestrelbridge::console
