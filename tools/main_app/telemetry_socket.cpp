#include "tools/main_app/telemetry_socket.h"

#include <poll.h>

#include <algorithm>
#include <span>
#include <string>

#include "base/run_paths.h"
#include "tools/common/host_port.h"
#include "tools/common/tool_error.h"
#include "tools/main_app/telemetry_lines.h"

namespace kestrelbridge::tools {

TelemetrySocket::TelemetrySocket(const std::string& listen, const char* advice) {
  if (listen.empty() && share_.Connect(kShareTelemetryPath)) {
    return;
  }
  const UdpPeer local = *ParseHostPort(listen.empty() ? kDefaultTelemetryPlace : listen);
  try {
    udp_.emplace(local);
  } catch (const AddressInUseError&) {
    throw AddressInUseError(
        HostPortText(local) +
        ": address in use, probably by the main application (\"ss -ulnp\" names the "
        "program); " +
        advice);
  }
}

std::optional<ReceivedRecord> TelemetrySocket::Take() {
  std::span<const std::uint8_t> record;
  UdpPeer sender = kShareSender;
  if (udp_) {
    if (!udp_->Receive(buffer_, record, sender)) {
      return std::nullopt;
    }
  } else if (share_.Descriptor() != -1 || share_.Connect(kShareTelemetryPath)) {
    record = share_.Receive(buffer_);
  }
  if (!udp_ && record.empty()) {
    return std::nullopt;
  }
  return ReceivedRecord{.record = ParseTelemetryRecord(record), .sender = sender};
}

void TelemetrySocket::Wait(std::chrono::nanoseconds patience) const {
  constexpr std::chrono::milliseconds kLongest{100};  // then the share is looked for again
  pollfd descriptor = {.fd = Descriptor(), .events = POLLIN, .revents = 0};
  const auto pause = std::min<std::chrono::nanoseconds>(patience, kLongest);
  poll(&descriptor, 1,
       static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(pause).count()));
}

int TelemetrySocket::Descriptor() const { return udp_ ? udp_->Descriptor() : share_.Descriptor(); }

std::string TelemetrySocket::Place() const {
  return udp_ ? HostPortText(udp_->Local()) : kShareTelemetryPath;
}

}  // namespace kestrelbridge::tools
