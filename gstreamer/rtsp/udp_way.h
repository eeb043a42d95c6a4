// RTP and RTCP packets to one viewer by UDP.
#pragma once

#include <gio/gio.h>
#include <gst/gst.h>
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

namespace kestrelbridge::rtsp {

// The sockets belong to the stream, and are those whose ports the viewer was told.
struct UdpWay {
  GSocket* rtp_socket = nullptr;
  GSocket* rtcp_socket = nullptr;
  sockaddr_in rtp_address{};
  sockaddr_in rtcp_address{};
};

// Sends the list's packets from `first` on, without waiting. Returns how many the kernel took; what
// it refuses for another reason than want of room counts as taken, and is lost.
[[nodiscard]] std::size_t SendPackets(GSocket* socket, const sockaddr_in& address,
                                      GstBufferList* packets, std::size_t first);

}  // namespace kestrelbridge::rtsp
