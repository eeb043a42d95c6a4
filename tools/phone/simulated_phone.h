// A phone without a phone: what the camera's app does on the network once it shows the picture.
// It talks to the camera's address, keeps the camera awake, acknowledges units, and checks what
// comes back on the same socket.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "net/udp_endpoint.h"
#include "tools/common/udp_socket.h"
#include "tools/common/unit_schedule.h"
#include "tools/phone/phone_stream.h"

namespace kestrelbridge::tools {

struct PhoneOptions {
  UdpPeer to;  // the camera, as the phone knows it
  double keepalives_per_second = 5;
  bool acknowledge = true;                                     // every whole unit
  std::optional<std::chrono::duration<double>> silence_after;  // since the first keepalive
};

struct PhoneCounters {
  std::uint64_t keepalives_sent = 0;
  std::uint64_t acknowledgements_sent = 0;
  std::uint64_t send_failures = 0;      // packets that the system did not take
  std::uint64_t foreign_datagrams = 0;  // from elsewhere than where we send to; not looked into
};

using UnitSink = std::function<void(std::span<const std::uint8_t> unit)>;

class SimulatedPhone {
 public:
  // Every whole unit goes to the sink. The socket must outlive the phone.
  SimulatedPhone(const PhoneOptions& options, const UdpSocket& socket, UnitSink on_unit);

  // Takes the datagrams that have arrived and acknowledges units.
  void Receive();

  // Sends a keepalive when one is due. Once silent, the phone sends nothing and still receives.
  void Send(SteadyTime now);

  // When there is something to do again; the end of time when there is not.
  [[nodiscard]] SteadyTime NextSend() const { return std::min(next_keepalive_, silence_begin_); }

  [[nodiscard]] const PhoneCounters& Counters() const { return counters_; }
  [[nodiscard]] const StreamCounters& Stream() const { return stream_.Counters(); }

 private:
  void TakeForeign(UdpPeer from);
  void SendPacket(std::span<const std::uint8_t> packet, std::uint64_t& counter);

  PhoneOptions options_;
  const UdpSocket& socket_;
  UnitSink on_unit_;
  std::chrono::nanoseconds keepalive_period_;
  SteadyTime next_keepalive_;  // the first one at once
  SteadyTime silence_begin_ = SteadyTime::max();
  bool silent_ = false;
  std::uint16_t frame_sequence_;
  PhoneStream stream_;
  std::vector<std::uint8_t> receive_;
  PhoneCounters counters_;
};

}  // namespace kestrelbridge::tools
