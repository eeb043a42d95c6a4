#include "net/udp_endpoint.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/log.h"
#include "base/process_end.h"
#include "base/thread.h"
#include "net/clock.h"
#include "net/socket_buffers.h"

namespace kestrelbridge {
namespace {

constexpr useconds_t kWaitForBufferUs = 10'000;

constexpr unsigned kPeerAddressShift = 16;

// The endpoint that was opened last. Stored with release by Open, loaded with acquire by
// IsOwnSocket, which reads the endpoints' ports.
constinit std::atomic<const UdpEndpoint*> opened_last{nullptr};

void ConfigureSocket(int socket) {
  const int status_flags = fcntl(socket, F_GETFL, 0);
  if (status_flags != -1) {
    fcntl(socket, F_SETFL, status_flags & ~O_NONBLOCK);
  }
  if (!RequestReceiveBuffer(socket)) {
    Log("UDP receive buffer set failed\n");
  }
  if (!RequestSendBuffer(socket)) {
    Log("UDP send buffer set failed\n");
  }
  const int off = 0;
  const int on = 1;
  setsockopt(socket, SOL_SOCKET, SO_REUSEPORT, &off, sizeof off);
  setsockopt(socket, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
}

// Dotted-decimal text of the sender, made anew only when the sender changes: on a link that is
// nearly never.
struct SenderText {
  std::uint32_t address = 0;
  char text[kAddressTextSize] = "0.0.0.0";

  void Update(in_addr sender) {
    if (sender.s_addr != address) {
      address = sender.s_addr;
      inet_ntop(AF_INET, &sender, text, sizeof text);
    }
  }
};

void ReportFound(const UdpEndpoint& endpoint, const char* sender_text) {
  endpoint.counters->found.Add();
  if (endpoint.on_found != nullptr) {
    endpoint.on_found(sender_text);
  }
}

// Records the datagram's sender and time, and reports the link as found if it was down. The time is
// read when that has been reported, which may take long: the link is not to be stale at once.
//
// What is reported alternates, and the last report is the true state, because each thread reports
// only while the other has nothing to report: this one while the time is 0, which the watchdog
// stores after it has reported the loss; the watchdog while it is not 0, which is stored here after
// the link has been reported as found.
//
// The watchdog may take the link down at any point in between. Then the exchange below finds 0 and
// this datagram counts as the first of the next link.
void RecordReceive(UdpEndpoint& endpoint, const sockaddr_in& sender, const char* sender_text) {
  const std::uint64_t peer =
      std::uint64_t{sender.sin_addr.s_addr} << kPeerAddressShift | ntohs(sender.sin_port);
  std::uint32_t last = endpoint.last_receive_ms.load(std::memory_order_acquire);
  std::uint32_t now = 0;
  do {
    endpoint.peer.store(peer, std::memory_order_release);
    if (last == 0) {
      ReportFound(endpoint, sender_text);
    }
    now = StampOf(endpoint.now_ms());  // 0 would mean "down"
    // Pairs with the watchdog's exchange in TakeLinkDown.
  } while (!endpoint.last_receive_ms.compare_exchange_strong(last, now, std::memory_order_acq_rel,
                                                             std::memory_order_acquire));
}

// `last` is what the watchdog found too old.
//
// A datagram may come at any point in between. Then the last exchange fails: the link is up after
// all, and has been reported as lost. Its sender is either the peer that was just forgotten, or has
// been stored since.
void TakeLinkDown(UdpEndpoint& endpoint, std::uint32_t last) {
  const std::uint64_t peer = endpoint.peer.load(std::memory_order_acquire);
  endpoint.counters->lost.Add();
  if (endpoint.on_lost != nullptr) {
    endpoint.on_lost();
    std::uint64_t forgotten = peer;
    endpoint.peer.compare_exchange_strong(forgotten, 0, std::memory_order_acq_rel,
                                          std::memory_order_relaxed);
  }
  // Pairs with RecordReceive.
  if (endpoint.last_receive_ms.compare_exchange_strong(last, 0, std::memory_order_acq_rel,
                                                       std::memory_order_acquire)) {
    return;
  }
  std::uint64_t none = 0;
  endpoint.peer.compare_exchange_strong(none, peer, std::memory_order_acq_rel,
                                        std::memory_order_relaxed);
  SenderText sender;
  sender.Update({.s_addr = Peer(endpoint).address});
  ReportFound(endpoint, sender.text);
}

// `sent` is what sendto returned.
int CountSend(const UdpEndpoint& endpoint, ssize_t sent) {
  LinkCounters& counters = *endpoint.counters;
  if (sent < 0) {
    counters.send_failures.Add();
    return -1;
  }
  counters.sent_datagrams.Add();
  counters.sent_bytes.Add(static_cast<std::uint64_t>(sent));
  return static_cast<int>(sent);
}

bool InputWaits(const UdpEndpoint& endpoint) {
  pollfd input{
      .fd = endpoint.socket.load(std::memory_order_relaxed), .events = POLLIN, .revents = 0};
  return poll(&input, 1, 0) == 1 && (input.revents & POLLIN) != 0;
}

// True once for each datagram after which too much time has passed.
bool GrantOneStep(UdpEndpoint& endpoint, std::uint32_t last) {
  if (endpoint.granted_ms == last || !InputWaits(endpoint)) {
    return false;
  }
  endpoint.granted_ms = last;
  return true;
}

// Nobody can bind to another machine's address.
bool IsLocalAddress(std::uint32_t address) {
  const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
  if (socket == -1) {
    return false;
  }
  const sockaddr_in local = ToSockaddr({.address = address, .port = 0});
  const bool is_ours = bind(socket, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0;
  close(socket);
  return is_ours;
}

void* ReceiveThread(void* argument) { ReceiveLoop(*static_cast<UdpEndpoint*>(argument)); }

}  // namespace

int Open(UdpEndpoint& endpoint, std::uint16_t port) {
  const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
  if (socket == -1) {
    return -1;
  }
  ConfigureSocket(socket);
  const sockaddr_in local = ToSockaddr({.address = htonl(INADDR_ANY), .port = port});
  if (bind(socket, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
    const int error = errno;
    close(socket);
    errno = error;
    return -1;
  }
  endpoint.local_port = LocalAddress(socket).port;
  endpoint.socket.store(socket, std::memory_order_release);  // pairs with IsOpen
  endpoint.opened_before = opened_last.load(std::memory_order_relaxed);
  while (!opened_last.compare_exchange_weak(endpoint.opened_before, &endpoint,
                                            std::memory_order_release, std::memory_order_relaxed)) {
  }
  return StartThread(&endpoint.receive_thread, "udp-receive", ReceiveThread, &endpoint);
}

bool IsOpen(const UdpEndpoint& endpoint) {
  return endpoint.socket.load(std::memory_order_acquire) != -1;
}

void AttachBuffer(UdpEndpoint& endpoint, std::span<std::uint8_t> buffer) {
  endpoint.buffer_size =
      static_cast<std::uint16_t>(std::min<std::size_t>(buffer.size(), UINT16_MAX));
  endpoint.buffer.store(buffer.data(), std::memory_order_release);  // pairs with ReceiveLoop
}

int SendTo(const UdpEndpoint& endpoint, std::span<const std::uint8_t> data, const char* host,
           std::uint16_t port) {
  in_addr address{};
  if (inet_aton(host, &address) == 0) {
    return CountSend(endpoint, -1);
  }
  return SendTo(endpoint, data, UdpPeer{.address = address.s_addr, .port = port});
}

int SendTo(const UdpEndpoint& endpoint, std::span<const std::uint8_t> data, UdpPeer destination) {
  const sockaddr_in address = ToSockaddr(destination);
  return CountSend(
      endpoint, sendto(endpoint.socket.load(std::memory_order_relaxed), data.data(), data.size(), 0,
                       reinterpret_cast<const sockaddr*>(&address), sizeof address));
}

std::uint16_t LocalPort(const UdpEndpoint& endpoint) {
  return LocalAddress(endpoint.socket.load(std::memory_order_relaxed)).port;
}

UdpPeer Peer(const UdpEndpoint& endpoint) {
  const std::uint64_t packed = endpoint.peer.load(std::memory_order_acquire);
  return {.address = static_cast<std::uint32_t>(packed >> kPeerAddressShift),
          .port = static_cast<std::uint16_t>(packed & 0xFFFF)};
}

bool IsOwnSocket(UdpPeer sender) {
  const UdpEndpoint* endpoint = opened_last.load(std::memory_order_acquire);
  while (endpoint != nullptr && endpoint->local_port != sender.port) {
    endpoint = endpoint->opened_before;
  }
  return endpoint != nullptr && IsLocalAddress(sender.address);
}

bool LinkIsUp(const UdpEndpoint& endpoint) {
  return endpoint.last_receive_ms.load(std::memory_order_acquire) != 0;
}

void CheckLink(UdpEndpoint& endpoint) {
  // Before the clock is read: a datagram that arrives between the two must not look 49 days old.
  const std::uint32_t last = endpoint.last_receive_ms.load(std::memory_order_acquire);
  if (last == 0) {
    return;
  }
  const std::uint32_t elapsed_ms = endpoint.now_ms() - last;
  if (elapsed_ms <= endpoint.timeout_ms || GrantOneStep(endpoint, last)) {
    return;
  }
  // What no longer waits in the socket may just have been recorded.
  if (endpoint.last_receive_ms.load(std::memory_order_acquire) == last) {
    TakeLinkDown(endpoint, last);
  }
}

void ReceiveLoop(UdpEndpoint& endpoint) {
  const int socket = endpoint.socket.load(std::memory_order_relaxed);  // Open started this thread
  SenderText sender_text;
  for (;;) {
    std::uint8_t* buffer = endpoint.buffer.load(std::memory_order_acquire);  // see AttachBuffer
    if (buffer == nullptr) {
      usleep(kWaitForBufferUs);
      continue;
    }
    std::size_t room = endpoint.buffer_size;
    if (endpoint.clear_before_receive) {
      std::fill_n(buffer, room, std::uint8_t{0});
      --room;  // a text keeps its terminating NUL, however long it is
    }
    sockaddr_in sender{};
    socklen_t sender_size = sizeof sender;
    const ssize_t length =
        recvfrom(socket, buffer, room, 0, reinterpret_cast<sockaddr*>(&sender), &sender_size);
    if (length <= 0) {
      EndProcess(ExitCode::kReceiveFailed, "UDP read failed");
    }
    endpoint.counters->received_datagrams.Add();
    endpoint.counters->received_bytes.Add(static_cast<std::uint64_t>(length));
    if (endpoint.accepts == nullptr || endpoint.accepts(ToPeer(sender))) {
      sender_text.Update(sender.sin_addr);
      RecordReceive(endpoint, sender, sender_text.text);
      if (endpoint.on_datagram != nullptr) {
        endpoint.on_datagram({buffer, static_cast<std::size_t>(length)}, sender_text.text,
                             ntohs(sender.sin_port));
      }
    }
    endpoint.counters->handled_datagrams.Add();
  }
}

}  // namespace kestrelbridge
