#include "tools/main_app/telemetry_socket.h"

#include <span>
#include <string>

#include "tools/common/host_port.h"
#include "tools/common/tool_error.h"

namespace kestrelbridge::tools {
namespace {

UdpSocket Listen(UdpPeer local, const char* advice) {
  try {
    return UdpSocket(local);
  } catch (const AddressInUseError&) {
    throw ToolError(HostPortText(local) +
                    ": address in use, probably by the main application (\"ss -ulnp\" names the "
                    "program); " +
                    advice);
  }
}

}  // namespace

TelemetrySocket::TelemetrySocket(UdpPeer local, const char* advice)
    : socket_(Listen(local, advice)) {}

std::optional<ReceivedRecord> TelemetrySocket::Take() {
  std::span<const std::uint8_t> datagram;
  UdpPeer sender;
  if (!socket_.Receive(buffer_, datagram, sender)) {
    return std::nullopt;
  }
  return ReceivedRecord{.record = ParseTelemetryRecord(datagram), .sender = sender};
}

}  // namespace kestrelbridge::tools
