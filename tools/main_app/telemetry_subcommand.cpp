#include "tools/main_app/telemetry_subcommand.h"

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "tools/common/host_port.h"
#include "tools/common/number_option.h"
#include "tools/common/run_end.h"
#include "tools/common/screen.h"
#include "tools/common/text_layout.h"
#include "tools/common/tool_error.h"
#include "tools/main_app/telemetry_lines.h"
#include "tools/main_app/telemetry_socket.h"
#include "tools/main_app/telemetry_view.h"

namespace kestrelbridge::tools {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPause{100};
constexpr std::chrono::milliseconds kRedrawPeriod{200};
constexpr std::chrono::seconds kSilence{3};
constexpr double kMaxSeconds = 1e7;
constexpr double kMaxRecords = 1e15;

struct CommandLine {
  std::string listen;  // empty: see TelemetrySocket
  bool json = false;
  bool lines = false;
  bool once = false;
  std::uint64_t count = 0;  // 0: no limit
  double duration_s = 0;
};

// Says once for each silence that nothing comes.
class SilenceNotice {
 public:
  explicit SilenceNotice(std::string place) : place_(std::move(place)) {}

  void HasArrived(Clock::time_point now) {
    last_ = now;
    said_ = false;
  }
  void SayWhenDue(Clock::time_point now) {
    if (!said_ && now - last_ >= kSilence) {
      said_ = true;
      std::fprintf(stderr,
                   "nothing has arrived on %s for 3 s; telemetry begins once the daemon runs and "
                   "its camera has spoken\n",
                   place_.c_str());
    }
  }

 private:
  std::string place_;
  Clock::time_point last_ = Clock::now();
  bool said_ = false;
};

// What one run works with.
struct Run {
  explicit Run(const CommandLine& command_line)
      : line(command_line),
        telemetry(line.listen,
                  "end it, or have the daemon send elsewhere "
                  "(--dst-port) and choose that place with --listen"),
        silence(telemetry.Place()),
        end(line.duration_s),
        screen(output),
        view(Clock::now()),
        on_screen(!line.json && !line.lines && !line.once && HasScreen()) {}

  const CommandLine& line;
  TelemetrySocket telemetry;
  SilenceNotice silence;
  RunEnd end;
  Output output;
  Screen screen;
  TelemetryView view;
  TelemetryRecord text, status, histogram;  // the latest, for --once
  const bool on_screen;
  std::uint64_t records = 0;
  bool is_shown = false;  // with --once
  Clock::time_point next_draw;
};

// True when all of the state is there, which has been printed then.
bool ShowWholeState(const ReceivedRecord& received, Run& run) {
  const TelemetryRecord& record = received.record;
  TelemetryRecord unknown;
  TelemetryRecord& place = record.type == RecordType::kText        ? run.text
                           : record.type == RecordType::kStatus    ? run.status
                           : record.type == RecordType::kHistogram ? run.histogram
                                                                   : unknown;
  place = record;
  if (run.text.type != RecordType::kText || run.status.type != RecordType::kStatus) {
    return false;
  }
  const auto make_text = run.line.json ? JsonState : PlainState;
  run.output.Write(make_text(run.text, run.status, run.histogram, received.sender) + '\n');
  return true;
}

void Show(const ReceivedRecord& received, Run& run, Clock::time_point now) {
  if (run.on_screen) {
    run.view.Take(received.record, received.sender, now);
  } else {
    const auto make_line = run.line.json ? JsonLine : PlainLine;
    run.output.Write(make_line(received.record, received.sender) + '\n');
  }
}

// Shows all that has arrived. False when the run is to end.
bool ShowArrived(Run& run) {
  while (const auto received = run.telemetry.Take()) {
    const auto now = Clock::now();
    run.silence.HasArrived(now);
    ++run.records;
    if (run.line.once) {
      if (ShowWholeState(*received, run)) {
        run.is_shown = true;
        return false;
      }
      continue;
    }
    Show(*received, run, now);
    if (run.output.closed() || run.records == run.line.count || run.end.Wait({}, -1)) {
      return false;
    }
    if (run.on_screen && now >= run.next_draw) {
      return true;  // a flood must not hide the view
    }
  }
  return true;
}

void Redraw(Run& run) {
  if (run.records != 0) {
    const auto now = Clock::now();
    run.screen.Draw(run.view.Lines(now, WidthOf(STDOUT_FILENO)));
    run.next_draw = now + kRedrawPeriod;
  }
}

void Follow(Run& run) {
  bool goes_on = true;
  while (goes_on && !run.output.closed()) {
    if (run.end.WaitForInput(run.telemetry.Descriptor(), kPause, STDOUT_FILENO)) {
      return;
    }
    goes_on = ShowArrived(run);
    if (run.on_screen && Clock::now() >= run.next_draw) {
      Redraw(run);
    }
    if (!run.screen.started()) {  // the view tells of a silence itself
      run.silence.SayWhenDue(Clock::now());
    }
  }
}

void RunTelemetry(const CommandLine& line) {
  std::signal(SIGPIPE, SIG_IGN);  // a closed pipe is seen where it is written to
  Run run(line);
  std::fprintf(stderr, "listening on %s\n", run.telemetry.Place().c_str());
  Follow(run);
  if (run.on_screen) {
    Redraw(run);  // the last record, too
    run.screen.Close();
  }
  if (line.once && !run.is_shown) {
    throw ToolError("no text and status record have arrived on " + run.telemetry.Place());
  }
}

constexpr char kFooter[] =
    "On a terminal: a view that is drawn over itself, the latest value of everything. Into a pipe "
    "or file, or with --lines: a line per record. What is no record of the daemon's is shown as "
    "unknown. Where kestrelshare runs, any number of programs can listen; else only one, and the "
    "main application is one.\n"
    "Ends with Ctrl-C, SIGTERM, --count, --duration or when the pipe is closed. Exit code: 0, or 1 "
    "when something could not be done.\n\n"
    "  kestrelctl telemetry\n"
    "  kestrelctl telemetry --json --count 20 | jq -r 'select(.type == \"text\").format'";

}  // namespace

void AddTelemetrySubcommand(CLI::App& app) {
  CLI::App* const command = app.add_subcommand(
      "telemetry", "Shows the telemetry: the camera's state as the main application gets it");
  const auto line = std::make_shared<CommandLine>();
  command->add_option("--listen", line->listen, "Where the daemon sends its telemetry")
      ->type_name("HOST:PORT")
      ->check(HostPortValidator())
      ->default_str(kTelemetryPlaceText);
  command->add_flag("--json", line->json, "A JSON object per record, each on a line of its own");
  command->add_flag("--lines", line->lines, "A line per record, on a terminal, too");
  auto* const count = command->add_option("--count", line->count, "End after so many records")
                          ->check(WholeNumberBetween(1, kMaxRecords))
                          ->type_name("RECORDS");
  command
      ->add_flag("--once", line->once,
                 "Print the whole state, a key=value per line, once it has come, and end")
      ->excludes(count);
  command->add_option("--duration", line->duration_s, "End after so many seconds, waiting included")
      ->check(NumberBetween(0.01, kMaxSeconds))
      ->type_name("SECONDS");
  command->footer(kFooter);
  command->callback([line] { RunTelemetry(*line); });
}

}  // namespace kestrelbridge::tools
