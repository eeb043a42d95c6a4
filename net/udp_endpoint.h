// One UDP link: a socket, its receive thread, its latest peer, and a watchdog for silence.
//
//            first datagram: on_found              more than timeout_ms of silence,
//   +------+ ------------------------> +----+      seen by CheckLink: on_lost
//   | down |                           | up | ---+
//   +------+ <------------------------ +----+    |
//       ^                                        |
//       +----------------------------------------+
//
// An endpoint lives as long as the process; there is no close. Its owner opens it, fills the
// callback slots and flags, and attaches the receive buffer last (AttachBuffer), which is what sets
// the receive thread to work.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

#include "base/counters.h"
#include "net/clock.h"
#include "net/socket_address.h"

namespace kestrelbridge {

// Longest dotted-decimal address ("255.255.255.255") and its NUL.
inline constexpr std::size_t kAddressTextSize = 16;

// Receive thread: whether this sender may be the peer at all. What others send is counted as
// received and otherwise does not exist.
using AcceptCallback = bool (*)(UdpPeer sender);
// Receive thread: one datagram. The bytes are valid until the callback returns. The address is
// dotted-decimal text, the port in host byte order.
using DatagramCallback = void (*)(std::span<const std::uint8_t> datagram,
                                  const char* sender_address, std::uint16_t sender_port);
// The first datagram while the link was down. Receive thread; of a datagram that came while the
// link was being taken down, the thread that runs CheckLink.
using FoundCallback = void (*)(const char* sender_address);
// The thread that runs CheckLink: the link has been silent for more than timeout_ms.
using LostCallback = void (*)();

struct UdpEndpoint {
  // What this endpoint counts into. Set by the owner from the start, constant afterwards.
  LinkCounters* counters = &GetCounters().unnamed;

  // Set by the owner between Open and AttachBuffer, constant afterwards.
  AcceptCallback accepts = nullptr;  // null: anybody
  DatagramCallback on_datagram = nullptr;
  LostCallback on_lost = nullptr;
  FoundCallback on_found = nullptr;
  std::uint32_t timeout_ms = 1000;
  bool clear_before_receive =
      false;  // zero the buffer first; the datagram is then a text with a NUL

  std::uint32_t (*now_ms)() = NowMs;  // tests have clocks of their own

  // Latest sender: address << 16 | port, in one word so that no reader sees half of it; 0 while
  // there is none. Written by the receive thread and, by compare-and-exchange, the watchdog; read
  // by any thread through Peer().
  std::atomic<std::uint64_t> peer{0};

  // StampOf(now_ms()) at the latest datagram; 0 while the link is down. Written by the receive
  // thread and the watchdog, both by compare-and-exchange.
  std::atomic<std::uint32_t> last_receive_ms{0};

  // What last_receive_ms was when the watchdog last let the link live because input waited: that is
  // granted once. The watchdog's alone.
  std::uint32_t granted_ms = 0;

  // Receive buffer of the owner. Stored with release by AttachBuffer, loaded with acquire by the
  // receive thread, which thereby sees everything that was set before.
  std::atomic<std::uint8_t*> buffer{nullptr};
  std::uint16_t buffer_size = 0;

  pthread_t receive_thread{};

  // -1 until Open has bound it. Stored with release by Open, loaded with acquire by IsOpen: who
  // found the endpoint open sees what its owner set before it called Open.
  std::atomic<int> socket{-1};
  std::uint16_t local_port = 0;
  const UdpEndpoint* opened_before = nullptr;  // a list of all, for IsOwnSocket
};

// Binds a UDP socket to the port on all interfaces (0: a free one) and starts the receive thread,
// which waits for a buffer. Asks the kernel for socket buffers of 10,000,000 bytes; what it refuses
// is logged and not fatal. Returns 0, or -1 when the socket or the thread cannot be had;
// errno says why.
[[nodiscard]] int Open(UdpEndpoint& endpoint, std::uint16_t port);

// True from Open on, for threads that may ask before it: they were started earlier. Any thread.
[[nodiscard]] bool IsOpen(const UdpEndpoint& endpoint);

// Hands the endpoint its receive buffer, at most 65,535 bytes, and so sets it to work.
void AttachBuffer(UdpEndpoint& endpoint, std::span<std::uint8_t> buffer);

// Sends one datagram. Returns the bytes sent, or -1 also when host is no dotted-decimal address.
// Any thread; nothing is allocated or locked.
int SendTo(const UdpEndpoint& endpoint, std::span<const std::uint8_t> data, const char* host,
           std::uint16_t port);
int SendTo(const UdpEndpoint& endpoint, std::span<const std::uint8_t> data, UdpPeer destination);

// The port that the endpoint is bound to; 0 while it is not open. Any thread.
std::uint16_t LocalPort(const UdpEndpoint& endpoint);

// The latest sender; port 0 when there is none. Any thread.
UdpPeer Peer(const UdpEndpoint& endpoint);

// True for what one of this process's endpoints sends, as it is seen on this machine. Takes system
// calls when the port is an endpoint's. Any thread.
bool IsOwnSocket(UdpPeer sender);

// True between found and lost. Any thread.
bool LinkIsUp(const UdpEndpoint& endpoint);

// One step of the watchdog; the owner of the link calls it once a second from a thread of its
// choice, always the same. While datagrams wait in the socket, it is our receive thread that is
// silent, not the peer: the link then lives for one step more.
void CheckLink(UdpEndpoint& endpoint);

// Body of the receive thread. A receive that fails, or yields a datagram of length 0, ends the
// process.
[[noreturn]] void ReceiveLoop(UdpEndpoint& endpoint);

}  // namespace kestrelbridge
