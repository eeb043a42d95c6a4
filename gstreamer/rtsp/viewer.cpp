#include "gstreamer/rtsp/viewer.h"

#include <arpa/inet.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

#include "base/log.h"
#include "gstreamer/rtsp/keyframe.h"
#include "gstreamer/rtsp/udp_way.h"
#include "gstreamer/rtsp/weak.h"

namespace kestrelbridge::rtsp {
namespace {

using Clock = std::chrono::steady_clock;

// A player shows what it has got late as late; after a second the next keyframe is the better news.
constexpr std::chrono::seconds kOldestQueued{1};
constexpr std::size_t kLongestQueue = 4U << 20U;  // bytes
// A connection that takes nothing for so long has nobody at its other end.
constexpr std::chrono::seconds kGivenUpAfter{10};
constexpr char kViewerKey[] = "kestrelbridge-viewer";

struct QueuedPackets {
  GstBufferList* packets;
  std::size_t first;  // that has not been sent
  std::size_t bytes;
  Clock::time_point since;
};

struct Viewer {
  GstRTSPStreamTransport* own = nullptr;    // whose data this is
  GstRTSPStreamTransport* inner = nullptr;  // the library's way to a connection
  gpointer client = nullptr;                // weak
  std::optional<UdpWay> udp;                // else by the connection
  std::string name;

  // His socket was full, and the main thread is to go on when there is room. Set by who sends,
  // taken back by who notices the room.
  std::atomic<bool> awaits_room = false;

  std::mutex mutex;  // for all below: the stream's sender, and the main thread when there is room
  bool open = false;
  std::deque<QueuedPackets> queue;
  std::size_t queued_bytes = 0;
  Clock::time_point last_taken;
  std::uint64_t skips = 0;
};

Viewer& ViewerOf(gpointer transport) {
  return *static_cast<Viewer*>(g_object_get_data(G_OBJECT(transport), kViewerKey));
}

void DropFront(Viewer& viewer) {
  viewer.queued_bytes -= viewer.queue.front().bytes;
  gst_buffer_list_unref(viewer.queue.front().packets);
  viewer.queue.pop_front();
}

void Shut(Viewer& viewer) {
  viewer.open = false;
  while (!viewer.queue.empty()) {
    DropFront(viewer);
  }
}

void FreeViewer(gpointer data) {
  auto* const viewer = static_cast<Viewer*>(data);
  if (viewer->skips == 0) {
    Log("kestrel-rtsp: %s has gone\n", viewer->name.c_str());
  } else {
    Log("kestrel-rtsp: %s has gone; was too slow, and missed pictures up to a keyframe, %llu "
        "times\n",
        viewer->name.c_str(), static_cast<unsigned long long>(viewer->skips));
  }
  Shut(*viewer);
  g_object_unref(viewer->inner);
  FreeWeak(viewer->client);
  if (viewer->udp) {
    g_object_unref(viewer->udp->rtp_socket);
    g_object_unref(viewer->udp->rtcp_socket);
  }
  delete viewer;
}

// How many of the packets his socket took.
std::size_t Pass(Viewer& viewer, const QueuedPackets& next) {
  if (viewer.udp) {
    return SendPackets(viewer.udp->rtp_socket, viewer.udp->rtp_address, next.packets, next.first);
  }
  // All or none: the connection takes a list, or still has one to write.
  std::size_t taken = 0;
  WithObject<GstRTSPClient>(viewer.client, [&](GstRTSPClient*) {
    if (gst_rtsp_stream_transport_send_rtp_list(viewer.inner, next.packets)) {
      taken = gst_buffer_list_length(next.packets);
    }
  });
  return taken;
}

void Drain(Viewer& viewer);

gboolean DrainLater(gpointer transport) {
  Viewer& viewer = ViewerOf(transport);
  const std::lock_guard lock(viewer.mutex);
  Drain(viewer);
  return G_SOURCE_REMOVE;
}

gboolean OnRoom(GSocket* /*socket*/, GIOCondition /*condition*/, gpointer transport) {
  ViewerOf(transport).awaits_room = false;
  return DrainLater(transport);
}

// In the main thread, but not now, even if this is it: the caller holds locks.
void Schedule(GSource* source, GSourceFunc function, gpointer object) {
  g_source_set_callback(source, function, g_object_ref(object), g_object_unref);
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_attach(source, nullptr);
  g_source_unref(source);
}

// The connection has written what it had, perhaps at once.
void OnSent(gpointer weak) {
  WithObject<GstRTSPStreamTransport>(weak, [](GstRTSPStreamTransport* transport) {
    if (ViewerOf(transport).awaits_room.exchange(false)) {
      Schedule(g_idle_source_new(), DrainLater, transport);
    }
  });
}

// A connection tells when there is room again (OnSent), the UDP socket has to be asked. True when
// there is room already.
bool AwaitRoom(Viewer& viewer, QueuedPackets& next) {
  if (viewer.awaits_room.exchange(true)) {
    return false;
  }
  if (viewer.udp) {
    Schedule(g_socket_create_source(viewer.udp->rtp_socket, G_IO_OUT, nullptr),
             G_SOURCE_FUNC(OnRoom), viewer.own);
    return false;
  }
  next.first += Pass(viewer, next);  // it may have come to be just before we said that we wait
  return next.first == gst_buffer_list_length(next.packets);
}

void Drain(Viewer& viewer) {
  while (!viewer.queue.empty()) {
    QueuedPackets& next = viewer.queue.front();
    next.first += Pass(viewer, next);
    if (next.first < gst_buffer_list_length(next.packets) && !AwaitRoom(viewer, next)) {
      return;
    }
    viewer.last_taken = Clock::now();
    DropFront(viewer);
  }
}

void OnAlive(gpointer weak_session) {
  WithObject<GstRTSPSession>(weak_session, gst_rtsp_session_touch);
}

// The main thread does it: we are in the midst of the library's own sending.
void HangUp(const Viewer& viewer) {
  WithObject<GstRTSPClient>(viewer.client, [](GstRTSPClient* client) {
    const auto close = [](gpointer data) -> gboolean {
      gst_rtsp_client_close(GST_RTSP_CLIENT(data));
      return G_SOURCE_REMOVE;
    };
    Schedule(g_idle_source_new(), close, client);
  });
}

// Empties the queue of one who does not keep up; he goes on with the next keyframe.
void SkipIfTooSlow(Viewer& viewer, Clock::time_point now) {
  if (viewer.queue.empty() ||
      (now - viewer.queue.front().since < kOldestQueued && viewer.queued_bytes < kLongestQueue)) {
    return;
  }
  ++viewer.skips;
  Shut(viewer);
}

// Takes over the list. False when nobody is there any more.
bool Deliver(Viewer& viewer, GstBufferList* packets) {
  const std::lock_guard lock(viewer.mutex);
  const auto now = Clock::now();
  SkipIfTooSlow(viewer, now);
  viewer.open = viewer.open || OpensKeyframe(gst_buffer_list_get(packets, 0));
  if (viewer.open) {
    const std::size_t bytes = gst_buffer_list_calculate_size(packets);
    viewer.queue.push_back({.packets = packets, .first = 0, .bytes = bytes, .since = now});
    viewer.queued_bytes += bytes;
    Drain(viewer);
  } else {
    gst_buffer_list_unref(packets);
  }
  if (!viewer.open || viewer.queue.empty() || now - viewer.last_taken < kGivenUpAfter) {
    return true;
  }
  HangUp(viewer);
  return false;
}

gboolean OnRtpList(GstBufferList* packets, guint8 /*channel*/, gpointer transport) {
  return Deliver(ViewerOf(transport), gst_buffer_list_ref(packets)) ? TRUE : FALSE;
}

GstBufferList* ListOf(GstBuffer* packet) {
  GstBufferList* const list = gst_buffer_list_new_sized(1);
  gst_buffer_list_add(list, gst_buffer_ref(packet));
  return list;
}

gboolean OnRtp(GstBuffer* packet, guint8 /*channel*/, gpointer transport) {
  return Deliver(ViewerOf(transport), ListOf(packet)) ? TRUE : FALSE;
}

// Reports that do not fit now are out of date later.
gboolean OnRtcpList(GstBufferList* packets, guint8 /*channel*/, gpointer transport) {
  Viewer& viewer = ViewerOf(transport);
  if (viewer.udp) {
    static_cast<void>(SendPackets(viewer.udp->rtcp_socket, viewer.udp->rtcp_address, packets, 0));
  } else {
    WithObject<GstRTSPClient>(viewer.client, [&](GstRTSPClient*) {
      gst_rtsp_stream_transport_send_rtcp_list(viewer.inner, packets);
    });
  }
  return TRUE;
}

gboolean OnRtcp(GstBuffer* packet, guint8 channel, gpointer transport) {
  GstBufferList* const list = ListOf(packet);
  OnRtcpList(list, channel, transport);
  gst_buffer_list_unref(list);
  return TRUE;
}

sockaddr_in AddressOf(const GstRTSPTransport& way, int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  inet_pton(AF_INET, way.destination, &address.sin_addr);
  return address;
}

std::optional<UdpWay> UdpWayOf(GstRTSPStream* stream, const GstRTSPTransport& way) {
  if (way.lower_transport != GST_RTSP_LOWER_TRANS_UDP) {
    return std::nullopt;
  }
  return UdpWay{.rtp_socket = gst_rtsp_stream_get_rtp_socket(stream, G_SOCKET_FAMILY_IPV4),
                .rtcp_socket = gst_rtsp_stream_get_rtcp_socket(stream, G_SOCKET_FAMILY_IPV4),
                .rtp_address = AddressOf(way, way.client_port.min),
                .rtcp_address = AddressOf(way, way.client_port.max)};
}

// For the stream all viewers are connections: those it hands every packet to a function.
GstRTSPTransport* AsConnection(const GstRTSPTransport& way) {
  GstRTSPTransport* copy = nullptr;
  gst_rtsp_transport_new(&copy);
  copy->trans = way.trans;
  copy->profile = way.profile;
  copy->lower_transport = GST_RTSP_LOWER_TRANS_TCP;
  copy->destination = g_strdup(way.destination);
  copy->interleaved = way.interleaved;
  copy->client_port = way.client_port;
  copy->ssrc = way.ssrc;
  copy->mode_play = way.mode_play;
  return copy;
}

// Where the session keeps the transport that was just set up; the array is the session's own.
GstRTSPStreamTransport*& PlaceOf(GstRTSPContext* context) {
  GPtrArray* const places = gst_rtsp_session_media_get_transports(context->sessmedia);
  gpointer& place = places->pdata[gst_rtsp_stream_get_index(context->stream)];
  g_ptr_array_unref(places);
  return reinterpret_cast<GstRTSPStreamTransport*&>(place);
}

std::string NameOf(GstRTSPContext* context, bool by_udp) {
  const char* const address = gst_rtsp_connection_get_ip(context->conn);
  return "viewer " + std::string(address == nullptr ? "?" : address) +
         (by_udp ? " (UDP)" : " (TCP)");
}

}  // namespace

void AdmitViewer(GstRTSPContext* context) {
  GstRTSPStreamTransport*& place = PlaceOf(context);
  GstRTSPStreamTransport* const inner = place;
  const GstRTSPTransport& way = *gst_rtsp_stream_transport_get_transport(inner);
  GstRTSPStreamTransport* const own =
      gst_rtsp_stream_transport_new(context->stream, AsConnection(way));
  auto* const viewer = new Viewer;
  viewer->own = own;
  viewer->inner = inner;
  viewer->client = NewWeak(context->client);
  viewer->udp = UdpWayOf(context->stream, way);
  viewer->name = NameOf(context, viewer->udp.has_value());
  viewer->last_taken = Clock::now();
  g_object_set_data_full(G_OBJECT(own), kViewerKey, viewer, FreeViewer);
  gst_rtsp_stream_transport_set_url(own, gst_rtsp_stream_transport_get_url(inner));
  gst_rtsp_stream_transport_set_callbacks(own, OnRtp, OnRtcp, own, nullptr);
  gst_rtsp_stream_transport_set_list_callbacks(own, OnRtpList, OnRtcpList, own, nullptr);
  gst_rtsp_stream_transport_set_message_sent(inner, OnSent, NewWeak(own), FreeWeak);
  gst_rtsp_stream_transport_set_keepalive(inner, OnAlive, NewWeak(context->session), FreeWeak);
  place = own;
  Log("kestrel-rtsp: %s has joined\n", viewer->name.c_str());
}

void PauseViewer(GstRTSPContext* context) {
  GPtrArray* const transports = gst_rtsp_session_media_get_transports(context->sessmedia);
  for (guint i = 0; i < transports->len; ++i) {
    if (transports->pdata[i] != nullptr) {
      Viewer& viewer = ViewerOf(transports->pdata[i]);
      const std::lock_guard lock(viewer.mutex);
      Shut(viewer);
    }
  }
  g_ptr_array_unref(transports);
}

}  // namespace kestrelbridge::rtsp
