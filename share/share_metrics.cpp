#include "share/share_metrics.h"

#include <cstdint>
#include <span>

namespace kestrelbridge::share {
namespace {

void AppendHead(std::string& text, const char* name, const char* type, const char* help) {
  text.append("# HELP ").append(name).append(" ").append(help);
  text.append("\n# TYPE ").append(name).append(" ").append(type).append("\n");
}

void AppendOne(std::string& text, const char* name, const char* type, const char* help,
               std::uint64_t value) {
  AppendHead(text, name, type, help);
  text.append(name).append(" ").append(std::to_string(value)).append("\n");
}

void AppendLabelled(std::string& text, const char* name, const char* help, const char* label,
                    std::span<const char* const> words, std::span<const std::uint64_t> values) {
  AppendHead(text, name, "counter", help);
  for (std::size_t i = 0; i < words.size(); ++i) {
    text.append(name).append("{").append(label).append("=\"").append(words[i]).append("\"} ");
    text.append(std::to_string(values[i])).append("\n");
  }
}

}  // namespace

std::string ShareMetricsText(const ShareCounters& counters, std::size_t consumers) {
  std::string text;
  AppendLabelled(text, "kestrelbridge_share_records_total", "Telemetry records from the daemon.",
                 "kind", kRecordKindNames, counters.records);
  AppendOne(text, "kestrelbridge_share_forward_failures_total", "counter",
            "Records that could not be sent to the main application.", counters.forward_failures);
  AppendOne(text, "kestrelbridge_share_consumers", "gauge", "Consumers of telemetry connected now.",
            consumers);
  AppendOne(text, "kestrelbridge_share_consumers_seen_total", "counter",
            "Consumers of telemetry that have connected.", counters.consumers_seen);
  AppendOne(text, "kestrelbridge_share_records_delivered_total", "counter",
            "Records given to consumers, counted for each.", counters.delivered);
  AppendOne(text, "kestrelbridge_share_records_dropped_total", "counter",
            "Records that a consumer lost because it did not read.", counters.dropped);
  AppendOne(text, "kestrelbridge_share_connections_refused_total", "counter",
            "Connections beyond the limit.", counters.connections_refused);
  AppendLabelled(text, "kestrelbridge_share_commands_total", "Commands passed on to the daemon.",
                 "source", kCommandSourceNames, counters.commands);
  AppendLabelled(text, "kestrelbridge_share_commands_refused_total",
                 "Commands that were too long, or came while no daemon was heard.", "source",
                 kCommandSourceNames, counters.commands_refused);
  return text;
}

}  // namespace kestrelbridge::share
