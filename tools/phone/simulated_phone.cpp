#include "tools/phone/simulated_phone.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "camera/packet_format.h"
#include "tools/common/host_port.h"

namespace kestrelbridge::tools {
namespace {

constexpr int kDatagramsPerTurn = 1000;  // so that a flood cannot stop the keepalives
constexpr std::size_t kReceiveSize = 65'536;

// The app counts its frames for itself. Ours begin far from the daemon's first numbers, so that a
// look at the wire tells whose frame it is.
constexpr std::uint16_t kFirstFrameSequence = 0x8000;

bool SamePeer(UdpPeer a, UdpPeer b) { return a.address == b.address && a.port == b.port; }

}  // namespace

SimulatedPhone::SimulatedPhone(const PhoneOptions& options, const UdpSocket& socket,
                               UnitSink on_unit)
    : options_(options),
      socket_(socket),
      on_unit_(std::move(on_unit)),
      keepalive_period_(std::chrono::duration_cast<std::chrono::nanoseconds>(
          std::chrono::duration<double>(1 / options.keepalives_per_second))),
      frame_sequence_(kFirstFrameSequence),
      receive_(kReceiveSize) {}

void SimulatedPhone::Receive() {
  std::span<const std::uint8_t> datagram;
  UdpPeer from;
  for (int taken = 0; taken < kDatagramsPerTurn && socket_.Receive(receive_, datagram, from);
       ++taken) {
    if (!SamePeer(from, options_.to)) {
      TakeForeign(from);
      continue;
    }
    const auto unit = stream_.Take(datagram);
    if (unit.empty()) {
      continue;
    }
    if (options_.acknowledge && !silent_) {
      SendPacket(BuildUnitAcknowledgement(stream_.Sequence()), counters_.acknowledgements_sent);
    }
    on_unit_(unit);
  }
}

void SimulatedPhone::Send(SteadyTime now) {
  if (now >= silence_begin_) {
    silent_ = true;
    next_keepalive_ = silence_begin_ = SteadyTime::max();
  }
  if (now < next_keepalive_) {
    return;
  }
  if (counters_.keepalives_sent == 0 && options_.silence_after) {
    silence_begin_ =
        now + std::chrono::duration_cast<SteadyTime::duration>(*options_.silence_after);
  }
  SendPacket(BuildKeepalive(stream_.Sequence(), frame_sequence_++), counters_.keepalives_sent);
  next_keepalive_ = now + keepalive_period_;
}

// A phone drops what comes from another address than the camera's: then the address translation
// on the way does not work, and it helps to know who answered.
void SimulatedPhone::TakeForeign(UdpPeer from) {
  if (counters_.foreign_datagrams++ == 0) {
    std::fprintf(stderr, "warning: a datagram from %s, which is not %s; further ones are counted\n",
                 HostPortText(from).c_str(), HostPortText(options_.to).c_str());
  }
}

void SimulatedPhone::SendPacket(std::span<const std::uint8_t> packet, std::uint64_t& counter) {
  if (socket_.Send(packet, options_.to)) {
    ++counter;
  } else if (counters_.send_failures++ == 0) {
    std::fprintf(stderr, "warning: cannot send to %s: %s; further failures are counted\n",
                 HostPortText(options_.to).c_str(), std::strerror(errno));
  }
}

}  // namespace kestrelbridge::tools
