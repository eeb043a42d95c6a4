// All that the box counts, at one place.

#include <vector>

#include "base/run_paths.h"
#include "base/text_file.h"
#include "console/http_answers.h"

namespace kestrelbridge::console {
namespace {

constexpr std::size_t kMostText = 65'536;  // of one file

struct Row {
  const char* name;
  const char* type;
  const char* help;
  std::uint64_t ConsoleCounters::*value;
};
constexpr Row kRows[] = {
    {"kestrelbridge_console_viewers", "gauge", "Viewers of the picture now.",
     &ConsoleCounters::viewers},
    {"kestrelbridge_console_viewers_seen_total", "counter", "Viewers that have come.",
     &ConsoleCounters::viewers_seen},
    {"kestrelbridge_console_units_sent_total", "counter",
     "Access units sent, counted for each viewer.", &ConsoleCounters::units_sent},
    {"kestrelbridge_console_bytes_sent_total", "counter", "Bytes of these.",
     &ConsoleCounters::bytes_sent},
    {"kestrelbridge_console_units_skipped_total", "counter",
     "Access units that viewers did not get because they were too slow.",
     &ConsoleCounters::units_skipped},
    {"kestrelbridge_console_commands_total", "counter", "Commands passed on to the share.",
     &ConsoleCounters::commands},
    {"kestrelbridge_console_commands_refused_total", "counter", "Commands that were not.",
     &ConsoleCounters::commands_refused},
    {"kestrelbridge_console_sign_ins_refused_total", "counter",
     "Sign-ins with a wrong password, or too early after one.", &ConsoleCounters::sign_ins_refused},
    {"kestrelbridge_console_requests_refused_total", "counter",
     "Requests for a foreign host name, or from a foreign page.",
     &ConsoleCounters::requests_refused},
    {"kestrelbridge_console_connections_refused_total", "counter", "Connections beyond a limit.",
     &ConsoleCounters::connections_refused},
};

}  // namespace

std::string AllMetrics(const ConsoleCounters& counters) {
  std::string text;
  std::vector<char> file(kMostText);
  for (const char* const path : {kMetricsPath, kShareMetricsPath}) {
    ReadTextFile(path, file);
    text += file.data();
    if (!text.empty() && text.back() != '\n') {
      text += '\n';
    }
  }
  for (const Row& row : kRows) {
    text.append("# HELP ").append(row.name).append(" ").append(row.help);
    text.append("\n# TYPE ").append(row.name).append(" ").append(row.type).append("\n");
    text.append(row.name).append(" ").append(std::to_string(counters.*row.value)).append("\n");
  }
  return text;
}

}  // namespace kestrelbridge::console
