#include "tools/camera/simulated_camera.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "base/byte_order.h"
#include "camera/packet_format.h"
#include "tools/camera/obeyed_commands.h"
#include "tools/common/host_port.h"

namespace kestrelbridge::tools {
namespace {

using std::chrono::milliseconds;

// Each datagram carries all pushes. The daemon looks at command data whenever more than 500 bytes
// have gathered: that is every second datagram, or every third while there is no histogram.
constexpr milliseconds kCommandDataPeriod{50};

// A sender that is behind sends this much in one go, then lets the receiver breathe.
constexpr std::size_t kBurstBytes = 65'536;
constexpr milliseconds kBurstPause{1};

constexpr int kPacketsPerTurn = 1000;  // so that a flood of packets cannot stop the stream
constexpr std::size_t kReceiveSize = 65'536;

bool SamePeer(UdpPeer a, UdpPeer b) { return a.address == b.address && a.port == b.port; }

}  // namespace

SimulatedCamera::SimulatedCamera(const CameraOptions& options, std::span<const AccessUnit> units,
                                 const UdpSocket& socket, CameraJournal& journal)
    : options_(options),
      units_(units),
      socket_(socket),
      journal_(journal),
      schedule_(options.units_per_second),
      model_(options.start),
      faults_(options.faults, options.seed),
      buffer_(options.datagram_size),
      receive_(kReceiveSize) {}

void SimulatedCamera::Receive(SteadyTime now) {
  std::span<const std::uint8_t> packet;
  UdpPeer from;
  for (int taken = 0; taken < kPacketsPerTurn && socket_.Receive(receive_, packet, from); ++taken) {
    TakePacket(packet, from, now);
  }
}

void SimulatedCamera::Send(SteadyTime now) {
  if (!peer_ || IsSilent(now)) {
    return;
  }
  if (now >= next_command_data_) {
    SendCommandData(now);
  }
  SendDueUnits(now);
}

SteadyTime SimulatedCamera::NextSend() const {
  if (!peer_) {
    return SteadyTime::max();
  }
  const SteadyTime next_unit =
      clip_end_ ? SteadyTime::max() : std::max(schedule_.NextDue(), burst_pause_end_);
  const SteadyTime next = std::min(next_unit, next_command_data_);
  return IsSilent(next) ? SteadyTime::max() : next;
}

void SimulatedCamera::TakePacket(std::span<const std::uint8_t> packet, UdpPeer from,
                                 SteadyTime now) {
  const CheckedPacket checked = CheckPacket(packet);
  const bool from_peer = peer_ && SamePeer(*peer_, from);
  if (checked.type == PacketType::kBad) {
    NoteBadPacket(checked.fault, packet);
  } else if (checked.type == PacketType::kConnectionRequest) {
    ++counters_.connection_requests;
    if (!from_peer) {
      Connect(from, now);
    }
  } else if (!from_peer) {
    ++counters_.foreign_packets;
  } else if (checked.type == PacketType::kUnitAcknowledgement) {
    ++counters_.acknowledged;
  } else {
    TakeFrame(checked, packet, now);
  }
}

// Every packet of the daemon takes a new number, so two frames in a row cannot have the same one.
// Keepalives and commands are looked at apart: a phone's keepalives are among them, which it
// numbers for itself.
void SimulatedCamera::TakeFrame(const CheckedPacket& checked, std::span<const std::uint8_t> packet,
                                SteadyTime now) {
  const std::uint16_t sequence = LoadLe16(checked.frame, kFrameSequenceOffset);
  const bool is_keepalive = checked.type == PacketType::kKeepalive;
  auto& last_sequence = is_keepalive ? last_keepalive_sequence_ : last_command_sequence_;
  if (last_sequence == sequence) {
    NoteBadPacket("frame sequence used twice", packet);
    return;
  }
  last_sequence = sequence;
  if (is_keepalive) {
    ++counters_.keepalives;
  } else {
    ++counters_.commands;
    Obey(checked.frame, now);
  }
}

void SimulatedCamera::Obey(std::span<const std::uint8_t> frame, SteadyTime now) {
  std::printf("command: %s\n", ObeyCommand(frame, options_.start, now, model_).c_str());
}

void SimulatedCamera::NoteBadPacket(const char* fault, std::span<const std::uint8_t> packet) {
  ++counters_.bad_packets;
  bad_packets_.Note(fault, packet);
}

void SimulatedCamera::Connect(UdpPeer peer, SteadyTime now) {
  peer_ = peer;
  clip_unit_ = 0;
  clip_end_.reset();
  last_keepalive_sequence_.reset();
  last_command_sequence_.reset();
  faults_.Discard();
  schedule_.Start(now);
  next_command_data_ = now;  // the answer to the request
  burst_pause_end_ = now;
  streaming_since_ = streaming_since_.value_or(now);
  std::printf("connection request from %s: streaming %zu units at %g units/s%s\n",
              HostPortText(peer).c_str(), units_.size(), options_.units_per_second,
              options_.loop ? ", again and again" : "");
}

bool SimulatedCamera::IsSilent(SteadyTime now) const {
  return options_.silence_after && streaming_since_ &&
         now - *streaming_since_ >= *options_.silence_after;
}

void SimulatedCamera::SendCommandData(SteadyTime now) {
  if (PassTime(model_, now)) {
    std::printf("recording ends: the card is full\n");
  }
  std::array<std::uint8_t, kReceivedWrapperSize + kPushesSize> datagram{};
  const auto pushes = BuildPushes(model_, HistogramOf(last_unit_), push_sequence_);
  SendDatagram(BuildCommandData(pushes, datagram_sequence_++, datagram));
  ++counters_.command_data_sent;
  next_command_data_ = std::max(next_command_data_ + kCommandDataPeriod, now);
}

void SimulatedCamera::SendDueUnits(SteadyTime now) {
  if (clip_end_ || now < burst_pause_end_) {
    return;
  }
  if (schedule_.DropLag(now)) {
    ++counters_.schedule_slips;
  }
  std::size_t burst = 0;
  while (!clip_end_ && schedule_.NextDue() <= now) {
    const std::size_t length = units_[clip_unit_].size();
    if (burst != 0 && burst + length > kBurstBytes) {
      burst_pause_end_ = now + kBurstPause;
      return;
    }
    burst += length;
    SendUnit(now);
  }
}

void SimulatedCamera::SendUnit(SteadyTime now) {
  const AccessUnit unit = units_[clip_unit_];
  const std::size_t datagrams = UnitDatagramCount(unit.size(), options_.datagram_size);
  fates_.clear();
  for (std::size_t position = 0; position < datagrams; ++position) {
    SendVideoDatagram(BuildUnitDatagram(unit, position, datagram_sequence_++, buffer_));
  }
  journal_.Write({.unit = counters_.units_sent,
                  .clip_unit = clip_unit_,
                  .length = unit.size(),
                  .fates = fates_});
  ++counters_.units_sent;
  last_unit_ = unit;
  schedule_.Advance();
  if (++clip_unit_ < units_.size()) {
    return;
  }
  clip_unit_ = 0;
  if (!options_.loop) {
    faults_.Flush([this](auto datagram) { SendDatagram(datagram); });
    clip_end_ = now;
  }
}

void SimulatedCamera::SendVideoDatagram(std::span<std::uint8_t> datagram) {
  const DatagramFate fate =
      faults_.Pass(datagram, [this](auto arriving) { SendDatagram(arriving); });
  counters_.datagrams_lost += fate.lost ? 1 : 0;
  counters_.datagrams_duplicated += fate.duplicated ? 1 : 0;
  counters_.datagrams_reordered += fate.reordered ? 1 : 0;
  counters_.datagrams_corrupted += fate.corrupted ? 1 : 0;
  fates_.push_back(fate);
}

void SimulatedCamera::SendDatagram(std::span<const std::uint8_t> datagram) {
  if (!socket_.Send(datagram, *peer_)) {
    ++counters_.send_failures;
    return;
  }
  ++counters_.datagrams_sent;
  counters_.bytes_sent += datagram.size();
  forecast_.Take(datagram);
}

}  // namespace kestrelbridge::tools
