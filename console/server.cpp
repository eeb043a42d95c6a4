#include "console/server.h"

#include <libwebsockets.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>

#include "console/events.h"
#include "console/news.h"
#include "console/server_record.h"
#include "net/socket_address.h"
#include "tools/common/foreign_text.h"
#include "tools/common/host_port.h"
#include "tools/common/stop_signal.h"
#include "tools/common/tool_error.h"

namespace kestrelbridge::console {
namespace {

using tools::ToolError;

constexpr unsigned kHttpPatienceS = 10;  // with somebody who does not go on
constexpr int kKeepAliveS = 5;
// A viewer who is heard no more: asked after some seconds, closed after some more.
constexpr lws_retry_bo_t kIdlePolicy = {nullptr, 0, 0, 15, 30, 0};

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
  Server server(options, KESTRELBRIDGE_VERSION, MachineName());
  const OwnedContext context = OpenContext(server);
  server.context = context.get();
  lws_vhost* const vhost = OpenVhost(context.get(), options);
  UdpPeer place = options.listen;
  place.port = static_cast<std::uint16_t>(lws_get_vhost_listen_port(vhost));
  const auto wake = [&server] { lws_cancel_service(server.context); };
  server.ring.emplace(wake);
  server.feed.emplace(wake, stop_signal);
  StartTicking(server);
  std::printf("kestrelconsole: http%s://%s/\n", options.certificate.empty() ? "" : "s",
              tools::HostPortText(place).c_str());
  std::fflush(stdout);
  while (!server.stopping && lws_service(server.context, 0) >= 0) {
  }
  server.feed.reset();
  server.ring.reset();
  StopTicking(server);
}

}  // namespace kestrelbridge::console