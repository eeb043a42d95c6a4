#include "gstreamer/rtsp/udp_way.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>

namespace kestrelbridge::rtsp {
namespace {

// Of one system call. A packet has a piece for its header and one or more for what it carries.
constexpr std::size_t kMostPackets = 64;
constexpr std::size_t kMostPieces = 256;

// One system call's worth of packets, their memory mapped while it lives.
class Batch {
 public:
  Batch(const sockaddr_in& address, GstBufferList* packets, std::size_t first) {
    const std::size_t length = gst_buffer_list_length(packets);
    for (std::size_t i = first; i < length; ++i) {
      if (!Add(address, gst_buffer_list_get(packets, static_cast<guint>(i)))) {
        break;
      }
    }
  }
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;
  ~Batch() {
    for (std::size_t i = 0; i < mapped_; ++i) {
      gst_memory_unmap(maps_[i].memory, &maps_[i]);
    }
  }

  // As sendmmsg: how many were taken, or -1.
  int Send(int socket) {
    return sendmmsg(socket, messages_.data(), static_cast<unsigned>(count_),
                    MSG_DONTWAIT | MSG_NOSIGNAL);
  }

 private:
  // False when the batch is full.
  bool Add(const sockaddr_in& address, GstBuffer* packet) {
    const guint pieces = gst_buffer_n_memory(packet);  // at most 16
    if (count_ == kMostPackets || mapped_ + pieces > kMostPieces) {
      return false;
    }
    msghdr& message = messages_[count_++].msg_hdr;
    message.msg_name = const_cast<sockaddr_in*>(&address);
    message.msg_namelen = sizeof address;
    message.msg_iov = &pieces_[mapped_];
    for (guint i = 0; i < pieces; ++i) {
      GstMapInfo& map = maps_[mapped_];
      if (gst_memory_map(gst_buffer_peek_memory(packet, i), &map, GST_MAP_READ)) {
        message.msg_iov[message.msg_iovlen++] = {.iov_base = map.data, .iov_len = map.size};
        ++mapped_;
      }
    }
    return true;
  }

  std::size_t count_ = 0;
  std::size_t mapped_ = 0;
  std::array<mmsghdr, kMostPackets> messages_{};
  std::array<iovec, kMostPieces> pieces_{};
  std::array<GstMapInfo, kMostPieces> maps_;
};

bool IsWantOfRoom(int error) {
  return error == EAGAIN || error == EWOULDBLOCK || error == ENOBUFS || error == EINTR;
}

}  // namespace

std::size_t SendPackets(GSocket* socket, const sockaddr_in& address, GstBufferList* packets,
                        std::size_t first) {
  const std::size_t length = gst_buffer_list_length(packets);
  std::size_t next = first;
  while (next < length) {
    const int taken = Batch(address, packets, next).Send(g_socket_get_fd(socket));
    if (taken >= 0) {
      next += static_cast<std::size_t>(taken);
    } else if (IsWantOfRoom(errno)) {
      break;
    } else {
      ++next;  // such as "nobody listens there", which an earlier packet brought about
    }
  }
  return next - first;
}

}  // namespace kestrelbridge::rtsp
