// Where the telemetry comes from: the share's socket, which is for as many programs as like, or the
// place that the daemon sends to, which is for one.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "net/udp_endpoint.h"
#include "tools/common/local_socket.h"
#include "tools/common/udp_socket.h"
#include "tools/main_app/telemetry_records.h"

namespace kestrelbridge::tools {

// The main application's place.
inline constexpr char kDefaultTelemetryPlace[] = "127.0.0.1:5000";
// For --help.
inline constexpr char kTelemetryPlaceText[] = "kestrelshare, else 127.0.0.1:5000";

struct ReceivedRecord {
  TelemetryRecord record;
  UdpPeer sender;  // kShareSender: by way of the share
};

class TelemetrySocket {
 public:
  // Listens at `listen` (HOST:PORT); empty: at the share's socket where a share runs, else at the
  // main application's place. Throws ToolError when it cannot, AddressInUseError when somebody else
  // listens there: the text says who that probably is, and `advice` what to do about it.
  TelemetrySocket(const std::string& listen, const char* advice);

  // The next record that has arrived; nothing when there is none. A share that has ended is looked
  // for again.
  std::optional<ReceivedRecord> Take();

  // Waits that long, less when something arrives.
  void Wait(std::chrono::nanoseconds patience) const;

  // To wait for; -1 while the share is away.
  [[nodiscard]] int Descriptor() const;

  // "127.0.0.1:5000" or the share's path.
  [[nodiscard]] std::string Place() const;

  // The socket at the main application's place; null with the share.
  [[nodiscard]] const UdpSocket* Udp() const { return udp_ ? &*udp_ : nullptr; }

 private:
  std::optional<UdpSocket> udp_;
  LocalSocket share_;
  std::array<std::uint8_t, 65'536> buffer_{};  // any datagram, so that none is cut
};

}  // namespace kestrelbridge::tools
