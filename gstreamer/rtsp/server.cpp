#include "gstreamer/rtsp/server.h"

#include <gio/gio.h>
#include <glib-unix.h>
#include <gst/rtsp-server/rtsp-server.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <chrono>
#include <csignal>
#include <memory>

#include "base/log.h"
#include "base/service_notify.h"
#include "gstreamer/rtsp/kept_media.h"
#include "gstreamer/rtsp/picture.h"
#include "gstreamer/rtsp/viewer.h"
#include "gstreamer/rtsp/weak.h"
#include "tools/common/tool_error.h"

namespace kestrelbridge::rtsp {
namespace {

using Clock = std::chrono::steady_clock;

constexpr char kPath[] = "/live";
constexpr char kRealm[] = "kestrelbridge";
constexpr char kViewerRole[] = "viewer";
constexpr guint kContentLimit = 4096;    // bytes of a request's body; viewers need none
constexpr int kBacklog = 64;             // connections that wait to be accepted
constexpr int kSendBuffer = 128 * 1024;  // bytes of a connection; the kernel doubles it
constexpr int kSilenceLimitMilliseconds = 10'000;
constexpr guint kHousekeepingPeriodSeconds = 1;
// Who has connected and looks at nothing.
constexpr std::chrono::seconds kIdleLimit{30};
constexpr char kSessionKey[] = "kestrelbridge-session";
constexpr char kIdleSinceKey[] = "kestrelbridge-idle-since";

struct Unref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename Object>
using Owned = std::unique_ptr<Object, Unref>;

// The library's idea of a server, and what our handlers need of it.
struct Server {
  Owned<GstRTSPServer> rtsp;
  Owned<GstRTSPSessionPool> sessions;
  guint session_timeout_s = 0;
  std::size_t most_connections = 0;
};

const char* NameOf(GstRTSPContext* context) {
  const char* const address = gst_rtsp_connection_get_ip(context->conn);
  return address == nullptr ? "?" : address;
}

// --- requests: each in its viewer's own thread --------------------------------------------------

GstRTSPStatusCode RefuseToRecord(GstRTSPClient* /*client*/, GstRTSPContext* context,
                                 gpointer /*data*/) {
  Log("kestrel-rtsp: %s wants to send video; refused, this server only shows\n", NameOf(context));
  return GST_RTSP_STS_METHOD_NOT_ALLOWED;
}

bool IsOurs(GstRTSPContext* context) {
  return context->uri != nullptr && context->uri->abspath != nullptr &&
         g_str_has_prefix(context->uri->abspath, kPath);
}

// A player that is told "later" at once can say so, and try again; one that waits shows nothing.
GstRTSPStatusCode ExpectPicture(GstRTSPClient* /*client*/, GstRTSPContext* context,
                                gpointer /*data*/) {
  if (!IsOurs(context)) {
    return GST_RTSP_STS_OK;  // for the library to say that there is nothing
  }
  const std::string reason = WhyNoPicture();
  if (reason.empty()) {
    ExpectDemand();
    return GST_RTSP_STS_OK;
  }
  Log("kestrel-rtsp: no picture for %s: %s\n", NameOf(context), reason.c_str());
  return GST_RTSP_STS_SERVICE_UNAVAILABLE;
}

// What one viewer asks of the pipeline, all would get: other places and speeds, smaller packets.
void ForgetWishes(GstRTSPMessage* request) {
  for (const GstRTSPHeaderField wish :
       {GST_RTSP_HDR_RANGE, GST_RTSP_HDR_SCALE, GST_RTSP_HDR_SPEED, GST_RTSP_HDR_BLOCKSIZE,
        GST_RTSP_HDR_RATE_CONTROL, GST_RTSP_HDR_FRAMES, GST_RTSP_HDR_SEEK_STYLE}) {
    gst_rtsp_message_remove_header(request, wish, -1);
  }
}

GstRTSPStatusCode BeforePlay(GstRTSPClient* /*client*/, GstRTSPContext* context,
                             gpointer /*data*/) {
  ForgetWishes(context->request);
  return GST_RTSP_STS_OK;
}

// A viewer who sets up anew what he is shown just now would go on being sent the old way, too.
GstRTSPStatusCode BeforeSetup(GstRTSPClient* client, GstRTSPContext* context, gpointer data) {
  ForgetWishes(context->request);
  int matched = 0;
  GstRTSPSessionMedia* const media =
      context->session == nullptr || context->uri == nullptr
          ? nullptr
          : gst_rtsp_session_get_media(context->session, context->uri->abspath, &matched);
  if (media != nullptr) {
    return GST_RTSP_STS_METHOD_NOT_VALID_IN_THIS_STATE;
  }
  return ExpectPicture(client, context, data);
}

void OnSetup(GstRTSPClient* /*client*/, GstRTSPContext* context, gpointer /*data*/) {
  KeepMedia(context->media);
  AdmitViewer(context);
}

// Packets leave when they are there: nothing in the pipeline waits for a clock. Each PLAY makes the
// library forget that it was told so.
void OnPlay(GstRTSPClient* /*client*/, GstRTSPContext* context, gpointer /*data*/) {
  gst_rtsp_media_set_rate_control(context->media, FALSE);
}

void OnPause(GstRTSPClient* /*client*/, GstRTSPContext* context, gpointer /*data*/) {
  PauseViewer(context);
}

// The library also lists what this server refuses.
constexpr char kMethods[] =
    "OPTIONS, DESCRIBE, SETUP, PLAY, PAUSE, GET_PARAMETER, SET_PARAMETER, TEARDOWN";

// The first packet of a viewer is the next keyframe's, not the one that the library announces here;
// a player that believed it would wait for the packets in between.
void OnResponse(GstRTSPClient* /*client*/, GstRTSPContext* /*context*/, GstRTSPMessage* response,
                gpointer /*data*/) {
  if (gst_rtsp_message_get_type(response) == GST_RTSP_MESSAGE_RESPONSE) {
    gst_rtsp_message_remove_header(response, GST_RTSP_HDR_RTP_INFO, -1);
    if (gst_rtsp_message_remove_header(response, GST_RTSP_HDR_PUBLIC, -1) == GST_RTSP_OK) {
      gst_rtsp_message_add_header(response, GST_RTSP_HDR_PUBLIC, kMethods);
    }
  }
}

void OnNewSession(GstRTSPClient* client, GstRTSPSession* session, gpointer server) {
  gst_rtsp_session_set_timeout(session, static_cast<Server*>(server)->session_timeout_s);
  g_object_set_data_full(G_OBJECT(client), kSessionKey, NewWeak(session), FreeWeak);
}

bool IsEmpty(GstRTSPSession* session) {
  GList* const media = gst_rtsp_session_filter(session, nullptr, nullptr);
  g_list_free_full(media, g_object_unref);
  return media == nullptr;
}

// The library keeps the session of a viewer who has hung up, and it counts, until its time is over.
void OnClosed(GstRTSPClient* client, gpointer server) {
  gpointer session_of_client = g_object_get_data(G_OBJECT(client), kSessionKey);
  if (session_of_client != nullptr) {
    WithObject<GstRTSPSession>(session_of_client, [server](GstRTSPSession* session) {
      if (IsEmpty(session)) {
        gst_rtsp_session_pool_remove(static_cast<Server*>(server)->sessions.get(), session);
      }
    });
  }
}

// --- connections: the main thread ---------------------------------------------------------------

std::size_t CountConnections(GstRTSPServer* rtsp) {
  GList* const clients = gst_rtsp_server_client_filter(rtsp, nullptr, nullptr);
  const std::size_t count = g_list_length(clients);
  g_list_free_full(clients, g_object_unref);
  return count;
}

// What the kernel keeps for a viewer who does not read is the past: a second of it, not half a
// minute. A machine that is gone answers nothing, and its connection ends.
void KeepConnectionShort(GstRTSPClient* client) {
  GstRTSPConnection* const connection = gst_rtsp_client_get_connection(client);
  GSocket* const socket =
      connection == nullptr ? nullptr : gst_rtsp_connection_get_write_socket(connection);
  if (socket != nullptr) {
    g_socket_set_option(socket, SOL_SOCKET, SO_SNDBUF, kSendBuffer, nullptr);
    g_socket_set_option(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, kSilenceLimitMilliseconds, nullptr);
    g_socket_set_option(socket, IPPROTO_TCP, TCP_NODELAY, 1, nullptr);
  }
}

void OnConnected(GstRTSPServer* rtsp, GstRTSPClient* client, gpointer data) {
  const auto& server = *static_cast<Server*>(data);
  if (CountConnections(rtsp) > server.most_connections) {
    Log("kestrel-rtsp: more than %zu connections; the newest one is closed\n",
        server.most_connections);
    gst_rtsp_client_close(client);
    return;
  }
  KeepConnectionShort(client);
  g_object_set_data_full(G_OBJECT(client), kIdleSinceKey, new Clock::time_point(Clock::now()),
                         [](gpointer time) { delete static_cast<Clock::time_point*>(time); });
  g_signal_connect(client, "pre-announce-request", G_CALLBACK(RefuseToRecord), nullptr);
  g_signal_connect(client, "pre-record-request", G_CALLBACK(RefuseToRecord), nullptr);
  g_signal_connect(client, "pre-describe-request", G_CALLBACK(ExpectPicture), nullptr);
  g_signal_connect(client, "pre-setup-request", G_CALLBACK(BeforeSetup), nullptr);
  g_signal_connect(client, "pre-play-request", G_CALLBACK(BeforePlay), nullptr);
  g_signal_connect(client, "setup-request", G_CALLBACK(OnSetup), nullptr);
  g_signal_connect(client, "play-request", G_CALLBACK(OnPlay), nullptr);
  g_signal_connect(client, "pause-request", G_CALLBACK(OnPause), nullptr);
  g_signal_connect(client, "send-message", G_CALLBACK(OnResponse), nullptr);
  g_signal_connect(client, "new-session", G_CALLBACK(OnNewSession), data);
  g_signal_connect(client, "closed", G_CALLBACK(OnClosed), data);
}

GstRTSPFilterResult RemoveIfIdle(GstRTSPServer* /*rtsp*/, GstRTSPClient* client,
                                 gpointer /*data*/) {
  auto* const idle_since =
      static_cast<Clock::time_point*>(g_object_get_data(G_OBJECT(client), kIdleSinceKey));
  GList* const sessions = gst_rtsp_client_session_filter(client, nullptr, nullptr);
  const bool is_idle = sessions == nullptr;
  g_list_free_full(sessions, g_object_unref);
  if (idle_since == nullptr || !is_idle) {
    if (idle_since != nullptr) {
      *idle_since = Clock::now();
    }
    return GST_RTSP_FILTER_KEEP;
  }
  return Clock::now() - *idle_since > kIdleLimit ? GST_RTSP_FILTER_REMOVE : GST_RTSP_FILTER_KEEP;
}

gboolean KeepHouse(gpointer data) {
  const auto& server = *static_cast<Server*>(data);
  gst_rtsp_session_pool_cleanup(server.sessions.get());
  LetGoOfUnwanted(gst_rtsp_session_pool_get_n_sessions(server.sessions.get()) != 0);
  gst_rtsp_server_client_filter(server.rtsp.get(), RemoveIfIdle, nullptr);
  return G_SOURCE_CONTINUE;
}

// --- start --------------------------------------------------------------------------------------

// Digest only: the password does not cross the network, and what is compared is a sum over a number
// that is used once.
void AskForPassword(GstRTSPServer* rtsp, GstRTSPMediaFactory* factory, const User& user) {
  const Owned<GstRTSPAuth> auth(gst_rtsp_auth_new());
  gst_rtsp_auth_set_supported_methods(auth.get(), GST_RTSP_AUTH_DIGEST);
  gst_rtsp_auth_set_realm(auth.get(), kRealm);
  GstRTSPToken* const token =
      gst_rtsp_token_new(GST_RTSP_TOKEN_MEDIA_FACTORY_ROLE, G_TYPE_STRING, kViewerRole, nullptr);
  gst_rtsp_auth_add_digest(auth.get(), user.name.c_str(), user.password.c_str(), token);
  gst_rtsp_token_unref(token);
  gst_rtsp_server_set_auth(rtsp, auth.get());
  gst_rtsp_media_factory_add_role(factory, kViewerRole, GST_RTSP_PERM_MEDIA_FACTORY_ACCESS,
                                  G_TYPE_BOOLEAN, TRUE, GST_RTSP_PERM_MEDIA_FACTORY_CONSTRUCT,
                                  G_TYPE_BOOLEAN, TRUE, nullptr);
}

void OnPrepared(GstRTSPMedia* media, gpointer /*data*/) {
  GstElement* const pipeline = gst_rtsp_media_get_element(media);
  WaitForEver(pipeline);
  gst_object_unref(pipeline);
}

void OnMedia(GstRTSPMediaFactory* /*factory*/, GstRTSPMedia* media, gpointer /*data*/) {
  g_signal_connect(media, "prepared", G_CALLBACK(OnPrepared), nullptr);
}

GstRTSPMediaFactory* NewFactory() {
  GstRTSPMediaFactory* const factory = gst_rtsp_media_factory_new();
  gst_rtsp_media_factory_set_launch(factory, PictureLaunch().c_str());
  gst_rtsp_media_factory_set_shared(factory, TRUE);
  gst_rtsp_media_factory_set_transport_mode(factory, GST_RTSP_TRANSPORT_MODE_PLAY);
  gst_rtsp_media_factory_set_profiles(factory, GST_RTSP_PROFILE_AVP);
  gst_rtsp_media_factory_set_protocols(
      factory, static_cast<GstRTSPLowerTrans>(GST_RTSP_LOWER_TRANS_UDP | GST_RTSP_LOWER_TRANS_TCP));
  gst_rtsp_media_factory_set_latency(factory, 0);
  g_signal_connect(factory, "media-configure", G_CALLBACK(OnMedia), nullptr);
  return factory;
}

void SetUp(Server& server, const ServerOptions& options) {
  server.rtsp.reset(gst_rtsp_server_new());
  GstRTSPServer* const rtsp = server.rtsp.get();
  gst_rtsp_server_set_address(rtsp, options.address.c_str());
  gst_rtsp_server_set_service(rtsp, std::to_string(options.port).c_str());
  gst_rtsp_server_set_backlog(rtsp, kBacklog);
  gst_rtsp_server_set_content_length_limit(rtsp, kContentLimit);
  server.session_timeout_s = options.session_timeout_s;
  // Each viewer may connect anew before his old connection is known to be gone, and some ask first.
  server.most_connections = static_cast<std::size_t>(options.viewers) * 2 + 8;

  server.sessions.reset(gst_rtsp_session_pool_new());
  gst_rtsp_session_pool_set_max_sessions(server.sessions.get(),
                                         static_cast<guint>(options.viewers));
  gst_rtsp_server_set_session_pool(rtsp, server.sessions.get());
  // A thread for each connection: one that waits for a picture holds up nobody.
  const Owned<GstRTSPThreadPool> threads(gst_rtsp_thread_pool_new());
  gst_rtsp_thread_pool_set_max_threads(threads.get(), -1);
  gst_rtsp_server_set_thread_pool(rtsp, threads.get());

  GstRTSPMediaFactory* const factory = NewFactory();
  if (options.user) {
    AskForPassword(rtsp, factory, *options.user);
  }
  const Owned<GstRTSPMountPoints> mounts(gst_rtsp_mount_points_new());
  gst_rtsp_mount_points_add_factory(mounts.get(), kPath, factory);
  gst_rtsp_server_set_mount_points(rtsp, mounts.get());
  g_signal_connect(rtsp, "client-connected", G_CALLBACK(OnConnected), &server);
}

void Listen(const Server& server, const ServerOptions& options) {
  GError* error = nullptr;
  GSource* const source = gst_rtsp_server_create_source(server.rtsp.get(), nullptr, &error);
  if (source == nullptr) {
    const std::string where = options.address + ":" + std::to_string(options.port);
    const std::string reason = error->message;
    const bool in_use = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_ADDRESS_IN_USE) != FALSE;
    g_clear_error(&error);
    throw tools::ToolError(
        in_use ? where +
                     " is in use: another server listens there (ss -ltnp); choose another port "
                     "with --listen ADDRESS:PORT"
               : "cannot listen on " + where + ": " + reason);
  }
  g_source_attach(source, nullptr);
  g_source_unref(source);
}

}  // namespace

void RunServer(const ServerOptions& options) {
  gst_init(nullptr, nullptr);
  ExpectElements();
  Server server;
  SetUp(server, options);
  Listen(server, options);
  GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
  const auto quit = [](gpointer data) -> gboolean {
    g_main_loop_quit(static_cast<GMainLoop*>(data));
    return G_SOURCE_CONTINUE;
  };
  g_unix_signal_add(SIGINT, quit, loop);
  g_unix_signal_add(SIGTERM, quit, loop);
  g_timeout_add_seconds(kHousekeepingPeriodSeconds, KeepHouse, &server);
  Log("kestrel-rtsp: rtsp://%s:%d%s, for %d viewers%s\n", options.address.c_str(),
      gst_rtsp_server_get_bound_port(server.rtsp.get()), kPath, options.viewers,
      options.user ? ", with a password" : "");
  NotifyService("READY=1");
  g_main_loop_run(loop);
  const auto remove = [](GstRTSPServer*, GstRTSPClient*, gpointer) {
    return GST_RTSP_FILTER_REMOVE;
  };
  gst_rtsp_server_client_filter(server.rtsp.get(), remove, nullptr);
  g_main_loop_unref(loop);
}

}  // namespace kestrelbridge::rtsp
