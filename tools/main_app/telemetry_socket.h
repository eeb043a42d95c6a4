// Where the daemon sends its telemetry: the main application's place.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "net/udp_endpoint.h"
#include "tools/common/udp_socket.h"
#include "tools/main_app/telemetry_records.h"

namespace kestrelbridge::tools {

inline constexpr char kDefaultTelemetryPlace[] = "127.0.0.1:5000";

struct ReceivedRecord {
  TelemetryRecord record;
  UdpPeer sender;
};

class TelemetrySocket {
 public:
  // Throws ToolError when it cannot listen there. When somebody else does, the text says who that
  // probably is, and `advice` what to do about it.
  TelemetrySocket(UdpPeer local, const char* advice);

  // The next record that has arrived; nothing when there is none.
  std::optional<ReceivedRecord> Take();

  [[nodiscard]] const UdpSocket& socket() const { return socket_; }

 private:
  UdpSocket socket_;
  std::array<std::uint8_t, 65'536> buffer_{};  // any datagram, so that none is cut
};

}  // namespace kestrelbridge::tools
