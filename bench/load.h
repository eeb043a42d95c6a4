// The load: a sender that stands in for the camera, cheap enough to keep a core of its own from
// being the bottleneck.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "net/udp_endpoint.h"
#include "stream.h"

namespace kestrelbridge::bench {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

// How the datagrams of a unit are handed to the kernel.
enum class SendWay {
  kEach,       // all in one sendmmsg: the kernel sees datagrams, as from a radio link
  kSegmented,  // one sendmsg that the kernel cuts (UDP_SEGMENT): several times cheaper
};

// The camera's socket.
class CameraSocket {
 public:
  explicit CameraSocket(std::uint16_t port);
  CameraSocket(const CameraSocket&) = delete;
  CameraSocket& operator=(const CameraSocket&) = delete;
  ~CameraSocket();

  // Waits for the first packet of the program under test, its connection request, and sends to its
  // address from then on. Throws ToolError after ten seconds.
  void AwaitPeer();

  // The peer does not ask for a stream; it listens at this port.
  void SetPeer(UdpPeer peer);

  void Send(std::span<const std::uint8_t> datagram) const;
  void SendUnit(const DatagramStream& stream, const DatagramStream::Unit& unit, SendWay way);

  // Of the peer.
  [[nodiscard]] std::uint16_t PeerPort() const;

  // Takes in what the peer has sent; returns the number of datagrams.
  std::uint64_t Drain();

 private:
  void SendEach(std::span<const DatagramStream::Datagram> datagrams);
  void SendSegmented(std::span<const DatagramStream::Datagram> datagrams) const;

  int socket_ = -1;
};

struct LoadPlan {
  double megabits_per_second = 0;  // of H.264; 0: no video at all
  Seconds duration{1};
  bool pushes = true;      // ten a second, as from the camera
  bool busy_wait = false;  // keeps time to the microsecond, and its core busy
  SendWay way = SendWay::kEach;
  std::function<bool()> go_on = [] { return true; };  // asked after each unit
};

struct LoadReport {
  std::uint64_t units = 0;
  std::uint64_t video_datagrams = 0;
  std::uint64_t video_bytes = 0;  // H.264
  Seconds elapsed{0};
  [[nodiscard]] double Megabits() const { return static_cast<double>(video_bytes) * 8 / 1e6; }
};

// Sends a stream, over and over, each unit in one burst at its time.
class Load {
 public:
  Load(CameraSocket& camera, DatagramStream& stream, void (*renumber)(DatagramStream&));

  LoadReport Run(const LoadPlan& plan);

  // The next unit; the stream starts again after its last one.
  const DatagramStream::Unit& NextUnit();
  [[nodiscard]] const DatagramStream& Stream() const { return stream_; }

 private:
  void SendDuePushes(Clock::time_point now);

  CameraSocket& camera_;
  DatagramStream& stream_;
  void (*renumber_)(DatagramStream&);
  std::size_t next_unit_ = 0;
  std::vector<std::uint8_t> pushes_;
  Clock::time_point pushes_due_;
};

// Waits on the wall: sleeps until shortly before, then looks at the clock when `busy` is set.
void WaitUntil(Clock::time_point time, bool busy);

}  // namespace kestrelbridge::bench
