// A telemetry record as one line of text. Pure functions; no line ends in a newline.
#pragma once

#include <string>

#include "net/udp_endpoint.h"
#include "tools/main_app/telemetry_records.h"

namespace kestrelbridge::tools {

// Who seems to send what came by way of the share.
inline constexpr UdpPeer kShareSender{.address = 0x7F, .port = 0};

// HOST:PORT, or "kestrelshare".
std::string SenderText(UdpPeer sender);

// For people: "text 127.0.0.1:40000 camera_detected=1,...". Printable ASCII only.
std::string PlainLine(const TelemetryRecord& record, UdpPeer sender);

// For scripts: one JSON object, with "time", "type" and "sender", and beside them
//   text        every key with its value, a number where it is one, else a string
//   status      "status_byte_0", "status_byte_31", "status_byte_2", numbers
//   histogram   "histogram", 64 numbers
//   unknown     "length", a number, and "bytes", in hexadecimal
// Keys that would come twice, with those three names, are left out: valid JSON for any bytes.
std::string JsonLine(const TelemetryRecord& record, UdpPeer sender);

// All that a text and a status record tell, and the histogram where there is one: lines of
// "key=value" for people, or one JSON object of the type "state".
std::string PlainState(const TelemetryRecord& text, const TelemetryRecord& status,
                       const TelemetryRecord& histogram, UdpPeer sender);
std::string JsonState(const TelemetryRecord& text, const TelemetryRecord& status,
                      const TelemetryRecord& histogram, UdpPeer sender);

}  // namespace kestrelbridge::tools
