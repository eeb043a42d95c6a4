#include "tools/stats/stats_subcommand.h"

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "base/run_paths.h"
#include "tools/common/number_option.h"
#include "tools/common/run_end.h"
#include "tools/common/screen.h"
#include "tools/common/text_layout.h"
#include "tools/stats/metrics_view.h"

namespace kestrelbridge::tools {
namespace {

constexpr std::chrono::milliseconds kPause{100};
constexpr double kMaxSeconds = 1e7;
constexpr double kMaxReadings = 1e15;

struct CommandLine {
  std::string file = kMetricsPath;
  bool json = false;
  std::uint64_t count = 0;  // 0: no limit
  double duration_s = 0;
};

// What one run works with.
struct Run {
  explicit Run(const CommandLine& command_line)
      : line(command_line),
        end(line.duration_s),
        screen(output),
        on_screen(!line.json && HasScreen()) {}

  const CommandLine& line;
  RunEnd end;
  Output output;
  Screen screen;
  const bool on_screen;
  std::optional<MetricsReading> before;
  std::optional<MetricsReading> latest;
  bool staleness_said = false;
};

void Print(Run& run) {
  if (run.line.json) {
    run.output.Write(MetricsJson(*run.latest, run.before) + "\n");
    return;
  }
  std::string text;
  for (const std::string& line :
       MetricsLines(*run.latest, run.before, MetricsReading::Time::clock::now(), false)) {
    text += line + "\n";
  }
  run.output.Write(text + "\n");
}

// The title tells more as time goes by, so it is drawn anew also without news.
void Draw(Run& run) {
  run.screen.Draw(MetricsLines(*run.latest, run.before, MetricsReading::Time::clock::now(), true,
                               WidthOf(STDOUT_FILENO)));
}

void SayWhenStale(Run& run) {
  const auto stale = Staleness(*run.latest, MetricsReading::Time::clock::now());
  if (stale && !run.staleness_said) {
    std::fprintf(stderr, "%s: %s\n", run.line.file.c_str(), stale->c_str());
  }
  run.staleness_said = stale.has_value();
}

void Follow(Run& run) {
  std::uint64_t shown = 0;
  do {
    MetricsReading reading = ReadMetrics(run.line.file);
    const bool is_new = !run.latest || reading.written != run.latest->written;
    if (is_new) {
      run.before = std::exchange(run.latest, std::move(reading));
      ++shown;
    }
    if (run.on_screen) {
      Draw(run);
    } else {
      SayWhenStale(run);
      if (is_new) {
        Print(run);
      }
    }
  } while (!run.output.closed() && shown != run.line.count && !run.end.Wait(kPause, STDOUT_FILENO));
}

void RunStats(const CommandLine& line) {
  std::signal(SIGPIPE, SIG_IGN);  // a closed pipe is seen where it is written to
  Run run(line);
  Follow(run);
  run.screen.Close();
}

constexpr char kFooter[] =
    "On a terminal: a table that is drawn over itself, without the counters that are 0. Into a "
    "pipe "
    "or file: the whole table, once a second. Rates are those of the last second, from the second "
    "table on. docs/metrics.md tells what each counter means. Counters begin at 0 with each start "
    "of the daemon; the file stays when it ends.\n"
    "Ends with Ctrl-C, SIGTERM, --count, --duration or when the pipe is closed. Exit code: 0, or 1 "
    "when the file cannot be read.\n\n"
    "  kestrelctl stats\n"
    "  kestrelctl stats --count 1 | grep units";

}  // namespace

void AddStatsSubcommand(CLI::App& app) {
  CLI::App* const command =
      app.add_subcommand("stats", "Shows what the daemon counts, in all and a second");
  const auto line = std::make_shared<CommandLine>();
  command->add_option("--file", line->file, "The daemon's metrics file")
      ->type_name("FILE")
      ->capture_default_str();
  command->add_flag("--json", line->json, "A JSON object per second, each on a line of its own");
  command->add_option("--count", line->count, "End after so many tables")
      ->check(WholeNumberBetween(1, kMaxReadings))
      ->type_name("TABLES");
  command->add_option("--duration", line->duration_s, "End after so many seconds")
      ->check(NumberBetween(0.01, kMaxSeconds))
      ->type_name("SECONDS");
  command->footer(kFooter);
  command->callback([line] { RunStats(*line); });
}

}  // namespace kestrelbridge::tools
