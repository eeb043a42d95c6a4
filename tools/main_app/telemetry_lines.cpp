#include "tools/main_app/telemetry_lines.h"

#include <algorithm>
#include <cstddef>

#include "tools/common/foreign_text.h"
#include "tools/common/host_port.h"
#include "tools/common/json_text.h"

namespace kestrelbridge::tools {
namespace {

constexpr std::size_t kBytesShown = 32;  // of an unknown datagram, in a line for people

std::string Numbers(std::span<const std::uint8_t> values, const char* separator) {
  std::string text;
  for (const std::uint8_t value : values) {
    text += (text.empty() ? "" : separator) + std::to_string(value);
  }
  return text;
}

std::string PlainItems(const TelemetryRecord& record) {
  std::string text;
  for (const TelemetryItem& item : record.items) {
    text += PrintableText(item.key) + '=' + PrintableText(item.value) + ',';
  }
  return text;
}

std::string PlainUnknown(std::span<const std::uint8_t> bytes) {
  const auto shown = bytes.first(std::min(bytes.size(), kBytesShown));
  return std::to_string(bytes.size()) + " bytes" + (bytes.empty() ? "" : ":") +
         HexText(shown, " ", kLowerHex) + (shown.size() < bytes.size() ? " ..." : "");
}

std::string PlainContent(const TelemetryRecord& record) {
  switch (record.type) {
    case RecordType::kText:
      return PlainItems(record);
    case RecordType::kStatus:
      return "byte 0: " + std::to_string(record.status_byte_0) +
             ", byte 31: " + std::to_string(record.status_byte_31) +
             ", byte 2: " + std::to_string(record.status_byte_2);
    case RecordType::kHistogram:
      return Numbers(record.histogram, " ");
    case RecordType::kUnknown:
      break;
  }
  return PlainUnknown(record.bytes);
}

std::string JsonItems(const TelemetryRecord& record) {
  std::string json;
  for (const TelemetryItem& item : record.items) {
    if (item.key != "time" && item.key != "type" && item.key != "sender") {
      json += "," + JsonString(item.key) + ":" + JsonValue(item.value);
    }
  }
  return json;
}

std::string JsonHead(std::string_view type, UdpPeer sender) {
  return "{" + JsonTime() + ",\"type\":" + JsonString(type) +
         ",\"sender\":" + JsonString(SenderText(sender));
}

// Each member with a comma before it.
std::string JsonContent(const TelemetryRecord& record) {
  switch (record.type) {
    case RecordType::kText:
      return JsonItems(record);
    case RecordType::kStatus:
      return ",\"status_byte_0\":" + std::to_string(record.status_byte_0) +
             ",\"status_byte_31\":" + std::to_string(record.status_byte_31) +
             ",\"status_byte_2\":" + std::to_string(record.status_byte_2);
    case RecordType::kHistogram:
      return ",\"histogram\":[" + Numbers(record.histogram, ",") + "]";
    case RecordType::kUnknown:
      break;
  }
  return ",\"length\":" + std::to_string(record.bytes.size()) + ",\"bytes\":\"" +
         HexText(record.bytes, "", kLowerHex) + "\"";
}

}  // namespace

std::string SenderText(UdpPeer sender) {
  return sender.address == kShareSender.address && sender.port == 0 ? "kestrelshare"
                                                                    : HostPortText(sender);
}

std::string PlainLine(const TelemetryRecord& record, UdpPeer sender) {
  return std::string(RecordTypeName(record.type)) + " " + SenderText(sender) + " " +
         PlainContent(record);
}

std::string JsonLine(const TelemetryRecord& record, UdpPeer sender) {
  return JsonHead(RecordTypeName(record.type), sender) + JsonContent(record) + "}";
}

std::string PlainState(const TelemetryRecord& text, const TelemetryRecord& status,
                       const TelemetryRecord& histogram, UdpPeer sender) {
  std::string lines = "sender=" + SenderText(sender) + "\n";
  for (const TelemetryItem& item : text.items) {
    lines += PrintableText(item.key) + "=" + PrintableText(item.value) + "\n";
  }
  lines += "status_byte_0=" + std::to_string(status.status_byte_0) +
           "\nstatus_byte_31=" + std::to_string(status.status_byte_31) +
           "\nstatus_byte_2=" + std::to_string(status.status_byte_2);
  if (histogram.type == RecordType::kHistogram) {
    lines += "\nhistogram=" + PlainContent(histogram);
  }
  return lines;
}

std::string JsonState(const TelemetryRecord& text, const TelemetryRecord& status,
                      const TelemetryRecord& histogram, UdpPeer sender) {
  return JsonHead("state", sender) + JsonContent(text) + JsonContent(status) +
         (histogram.type == RecordType::kHistogram ? JsonContent(histogram) : "") + "}";
}

}  // namespace kestrelbridge::tools
