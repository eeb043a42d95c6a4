#include "load.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <thread>

#include "camera/packet_format.h"
#include "net/socket_buffers.h"
#include "program.h"
#include "tools/camera/camera_assignment.h"
#include "tools/camera/camera_pushes.h"
#include "tools/common/tool_error.h"
#include "tools/wire/camera_wire.h"

#ifndef UDP_SEGMENT
#define UDP_SEGMENT 103
#endif

namespace kestrelbridge::bench {
namespace {

constexpr int kPatienceMs = 10'000;
constexpr std::chrono::milliseconds kPushPeriod{100};
constexpr std::size_t kMaxDatagramsPerUnit = 64;
constexpr std::size_t kDrainBatch = 64;
// Wakes up early by what a timer may be late.
constexpr std::chrono::microseconds kWakeMargin{150};

[[noreturn]] void Fail(const char* what) {
  throw tools::ToolError(std::string("the load cannot ") + what + ": " + std::strerror(errno));
}

// Refused: the program under test is gone, which CheckAlive tells better.
void CheckSent(ssize_t sent) {
  if (sent < 0 && errno != ECONNREFUSED) {
    Fail("send");
  }
}

void Connect(int socket, const sockaddr_in& peer) {
  if (connect(socket, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
    Fail("connect");
  }
}

std::vector<std::uint8_t> BuildPushDatagram() {
  std::uint16_t frame_sequence = 0;
  const auto pushes = tools::BuildPushes(tools::StartModel({}), tools::Histogram{}, frame_sequence);
  std::vector<std::uint8_t> buffer(kReceivedWrapperSize + pushes.size());
  const auto datagram = tools::BuildCommandData(pushes, 0, buffer);
  return {datagram.begin(), datagram.end()};
}

}  // namespace

CameraSocket::CameraSocket(std::uint16_t port)
    : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  const sockaddr_in local = ToSockaddr({.address = Loopback(), .port = port});
  if (socket_ == -1 ||
      bind(socket_, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
    Fail("open its port");
  }
  RequestReceiveBuffer(socket_);
  RequestSendBuffer(socket_);
}

CameraSocket::~CameraSocket() { close(socket_); }

void CameraSocket::AwaitPeer() {
  pollfd readable{.fd = socket_, .events = POLLIN, .revents = 0};
  std::array<std::uint8_t, kConnectionRequestSize> request{};
  sockaddr_in peer{};
  socklen_t size = sizeof peer;
  if (poll(&readable, 1, kPatienceMs) != 1 ||
      recvfrom(socket_, request.data(), request.size(), 0, reinterpret_cast<sockaddr*>(&peer),
               &size) <= 0) {
    throw tools::ToolError("the program under test did not ask for a stream");
  }
  Connect(socket_, peer);
}

void CameraSocket::SetPeer(UdpPeer peer) { Connect(socket_, ToSockaddr(peer)); }

std::uint16_t CameraSocket::PeerPort() const {
  sockaddr_in peer{};
  socklen_t size = sizeof peer;
  getpeername(socket_, reinterpret_cast<sockaddr*>(&peer), &size);
  return ntohs(peer.sin_port);
}

void CameraSocket::Send(std::span<const std::uint8_t> datagram) const {
  CheckSent(send(socket_, datagram.data(), datagram.size(), 0));
}

void CameraSocket::SendUnit(const DatagramStream& stream, const DatagramStream::Unit& unit,
                            SendWay way) {
  if (way == SendWay::kEach) {
    SendEach(stream.DatagramsOf(unit));
  } else {
    SendSegmented(stream.DatagramsOf(unit));
  }
}

void CameraSocket::SendEach(std::span<const DatagramStream::Datagram> datagrams) {
  while (!datagrams.empty()) {
    std::array<iovec, kMaxDatagramsPerUnit> parts{};
    std::array<mmsghdr, kMaxDatagramsPerUnit> messages{};
    const std::size_t count = std::min(datagrams.size(), messages.size());
    for (std::size_t i = 0; i < count; ++i) {
      parts[i] = {.iov_base = datagrams[i].data(), .iov_len = datagrams[i].size()};
      messages[i].msg_hdr.msg_iov = &parts[i];
      messages[i].msg_hdr.msg_iovlen = 1;
    }
    const int sent = sendmmsg(socket_, messages.data(), static_cast<unsigned>(count), 0);
    CheckSent(sent);
    datagrams = datagrams.subspan(static_cast<std::size_t>(std::max(sent, 1)));
  }
}

// The datagrams of a unit lie one behind the other and are all of one size, but for the last.
void CameraSocket::SendSegmented(std::span<const DatagramStream::Datagram> datagrams) const {
  iovec whole{.iov_base = datagrams.front().data(), .iov_len = 0};
  for (const auto datagram : datagrams) {
    whole.iov_len += datagram.size();
  }
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(std::uint16_t))> control{};
  msghdr message{};
  message.msg_iov = &whole;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_UDP;
  header->cmsg_type = UDP_SEGMENT;
  header->cmsg_len = CMSG_LEN(sizeof(std::uint16_t));
  const auto segment = static_cast<std::uint16_t>(datagrams.front().size());
  std::memcpy(CMSG_DATA(header), &segment, sizeof segment);
  CheckSent(sendmsg(socket_, &message, 0));
}

std::uint64_t CameraSocket::Drain() {
  std::array<std::array<std::uint8_t, 64>, kDrainBatch> buffers{};
  std::array<iovec, kDrainBatch> parts{};
  std::array<mmsghdr, kDrainBatch> messages{};
  for (std::size_t i = 0; i < kDrainBatch; ++i) {
    parts[i] = {.iov_base = buffers[i].data(), .iov_len = buffers[i].size()};
    messages[i].msg_hdr.msg_iov = &parts[i];
    messages[i].msg_hdr.msg_iovlen = 1;
  }
  std::uint64_t total = 0;
  int received = 0;
  do {
    received = recvmmsg(socket_, messages.data(), kDrainBatch, MSG_DONTWAIT, nullptr);
    total += received > 0 ? static_cast<std::uint64_t>(received) : 0;
  } while (received == static_cast<int>(kDrainBatch));
  return total;
}

Load::Load(CameraSocket& camera, DatagramStream& stream, void (*renumber)(DatagramStream&))
    : camera_(camera), stream_(stream), renumber_(renumber), pushes_(BuildPushDatagram()) {}

const DatagramStream::Unit& Load::NextUnit() {
  if (next_unit_ == stream_.units.size()) {
    next_unit_ = 0;
    renumber_(stream_);
  }
  return stream_.units[next_unit_++];
}

void Load::SendDuePushes(Clock::time_point now) {
  if (now >= pushes_due_) {
    camera_.Send(pushes_);
    pushes_due_ = now + kPushPeriod;
  }
}

LoadReport Load::Run(const LoadPlan& plan) {
  LoadReport report;
  const Clock::time_point start = Clock::now();
  Clock::time_point due = start;
  while (due - start < plan.duration) {
    WaitUntil(due, plan.busy_wait);
    if (plan.pushes) {
      SendDuePushes(due);
    }
    if (plan.megabits_per_second == 0) {
      due += kPushPeriod;
      camera_.Drain();
      continue;
    }
    const DatagramStream::Unit& unit = NextUnit();
    camera_.SendUnit(stream_, unit, plan.way);
    ++report.units;
    report.video_datagrams += unit.datagram_count;
    report.video_bytes += unit.length;
    camera_.Drain();
    if (!plan.go_on()) {
      break;
    }
    // By the bytes sent so far, so that no rounding adds up.
    due = start + std::chrono::duration_cast<Clock::duration>(
                      Seconds(report.Megabits() / plan.megabits_per_second));
  }
  report.elapsed = Clock::now() - start;
  return report;
}

void WaitUntil(Clock::time_point time, bool busy) {
  if (!busy) {
    std::this_thread::sleep_until(time);
    return;
  }
  if (time - Clock::now() > 2 * kWakeMargin) {
    std::this_thread::sleep_until(time - kWakeMargin);
  }
  while (Clock::now() < time) {
  }
}

}  // namespace kestrelbridge::bench
