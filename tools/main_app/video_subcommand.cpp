#include "tools/main_app/video_subcommand.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kestrelbridge/frame_block.h"
#include "tools/common/number_option.h"
#include "tools/common/quiet_ring.h"
#include "tools/common/run_end.h"
#include "tools/common/tool_error.h"
#include "tools/common/video_output.h"
#include "tools/main_app/video_statistics.h"

namespace kestrelbridge::tools {
namespace {

using Unit = std::vector<std::uint8_t>;

// The daemon wakes us for a unit; so long at most it takes until we see Ctrl-C or a closed pipe.
constexpr std::chrono::milliseconds kRingWait{50};
constexpr std::chrono::milliseconds kBlockPause{10};
constexpr std::chrono::seconds kQuiet{1};      // without a unit: is it still the daemon's ring?
constexpr std::chrono::seconds kLongQuiet{2};  // somebody waits, and should know why
constexpr double kMaxSeconds = 1e7;
constexpr double kMaxUnits = 1e15;

struct CommandLine {
  std::string output;
  bool force = false;
  bool statistics = false;
  bool json = false;
  bool oldest = false;
  bool live = false;
  std::uint64_t count = 0;  // 0: no limit
  double duration_s = 0;
};

// What one run works with.
struct Run {
  const CommandLine& line;
  VideoOutput output;
  RunEnd end;
  VideoStatistics statistics;
  FrameBlockReader::Counters earlier{};  // of rings that were removed under us
  bool quiet_said = false;
  std::optional<RunEnd::Clock::time_point> keyframe_missed_from{};  // the first unit, until then
  bool keyframe_seen = false;

  // Whose closed pipe ends the run.
  [[nodiscard]] int Watched() const {
    return output.descriptor() != -1 ? output.descriptor() : STDOUT_FILENO;
  }
};

bool OpensWithParameterSet(const Unit& unit) {
  constexpr std::size_t kNalHeaderOffset = 4;  // after the start code
  constexpr unsigned kNalTypeMask = 0x1F;
  constexpr unsigned kNalTypeSps = 7;
  return unit.size() > kNalHeaderOffset && (unit[kNalHeaderOffset] & kNalTypeMask) == kNalTypeSps;
}

[[noreturn]] void RefuseBlock(int error) {
  std::string text =
      std::string("cannot read /dev/shm/") + kFrameBlockName + ": " + std::strerror(error);
  if (error == EACCES) {
    text += "; sudo adduser $USER kestrelbridge, and log in again";
  }
  throw ToolError(text);
}

// The block, as soon as there is one; `waited` tells whether it was there at once. False when it is
// time to end first.
bool OpenBlock(FrameBlockMapping& mapping, Run& run, bool& waited) {
  for (waited = false; !mapping.Open(); waited = true) {
    if (errno != ENOENT && errno != EAGAIN) {
      RefuseBlock(errno);
    }
    if (!waited) {
      std::fprintf(stderr, "waiting for the daemon: there is no frame ring yet (/dev/shm/%s)\n",
                   kFrameBlockName);
    }
    if (run.end.Wait(kBlockPause, run.Watched())) {
      return false;
    }
  }
  return true;
}

// Takes one unit on its way. False when the run ends with it, or without it.
bool PassOn(const Unit& unit, Run& run) {
  if (!run.output.Write(unit, run.end)) {
    return false;
  }
  run.statistics.CountUnit(unit.size());
  if (!run.keyframe_seen && OpensWithParameterSet(unit)) {
    run.keyframe_seen = true;
    run.keyframe_missed_from.reset();
  } else if (run.statistics.units() == 1 && run.output.descriptor() != -1) {
    run.keyframe_missed_from = RunEnd::Clock::now();
  }
  return run.statistics.units() != run.line.count;
}

// What the ring holds at the start, from the newest unit on that opens with a parameter set: a
// decoder can begin with that one. Empty when there is none.
std::deque<Unit> TakeDecodable(FrameBlockReader& reader) {
  std::deque<Unit> units;
  Unit unit;
  // The bound is for a daemon that publishes faster than we copy.
  for (std::size_t i = 0; i < kSlotCount && reader.Next(unit); ++i) {
    if (OpensWithParameterSet(unit)) {
      units.clear();
    }
    if (!units.empty() || OpensWithParameterSet(unit)) {
      units.push_back(unit);
    }
  }
  return units;
}

// Of this ring and of the earlier ones.
FrameBlockReader::Counters AllCounters(const FrameBlockReader& reader, const Run& run) {
  FrameBlockReader::Counters all = reader.counters();
  all.lost += run.earlier.lost;
  all.restarts += run.earlier.restarts;
  return all;
}

// The time of day at that moment.
std::string ClockText(RunEnd::Clock::time_point then) {
  const auto ago = std::chrono::duration_cast<std::chrono::seconds>(RunEnd::Clock::now() - then);
  const std::time_t seconds = std::time(nullptr) - static_cast<std::time_t>(ago.count());
  std::tm local{};
  localtime_r(&seconds, &local);
  char text[16];
  return {text, std::strftime(text, sizeof text, "%H:%M:%S", &local)};
}

// Once, at the first long silence.
void SayWhyQuiet(Run& run, RunEnd::Clock::time_point last_unit) {
  if (!run.quiet_said) {
    std::fprintf(stderr, "no access unit for %d seconds, since %s: %s\n",
                 static_cast<int>(kLongQuiet.count()), ClockText(last_unit).c_str(),
                 WhyTheRingIsQuiet(kFrameBlockName).c_str());
  }
  run.quiet_said = true;
}

// Once: whoever waits for a picture may wait for long.
void SayWhenNoKeyframe(Run& run) {
  if (run.keyframe_missed_from && RunEnd::Clock::now() - *run.keyframe_missed_from > kLongQuiet) {
    std::fprintf(stderr,
                 "access units come, but no keyframe since %s: a player shows nothing before a "
                 "unit that opens with a parameter set\n",
                 ClockText(*run.keyframe_missed_from).c_str());
    run.keyframe_missed_from.reset();
  }
}

enum class RingEnd { kRunIsOver, kRingIsGone };

RingEnd Follow(FrameBlockReader& reader, const FrameBlockMapping& mapping, Run& run) {
  Unit unit;
  auto quiet_from = RunEnd::Clock::now();
  auto last_unit = quiet_from;
  for (;;) {
    while (reader.Next(unit)) {
      quiet_from = last_unit = RunEnd::Clock::now();
      if (!PassOn(unit, run) || run.end.Wait({}, -1)) {
        return RingEnd::kRunIsOver;  // a flood of units must not hide the end
      }
    }
    if (RunEnd::Clock::now() - quiet_from > kQuiet) {
      if (!mapping.IsCurrent()) {
        return RingEnd::kRingIsGone;
      }
      quiet_from = RunEnd::Clock::now();
    }
    if (RunEnd::Clock::now() - last_unit > kLongQuiet) {
      SayWhyQuiet(run, last_unit);
    }
    SayWhenNoKeyframe(run);
    if (run.line.statistics && !run.statistics.Report(AllCounters(reader, run))) {
      return RingEnd::kRunIsOver;
    }
    if (run.end.Wait({}, run.Watched())) {
      return RingEnd::kRunIsOver;
    }
    reader.Wait(kRingWait);
  }
}

RingEnd FollowRing(Run& run, const FrameBlockMapping& mapping, bool waited) {
  using Start = FrameBlockReader::Start;
  const bool all = run.line.oldest || waited;
  // Statistics are about what comes: old units would show as a burst.
  const bool live = !all && (run.line.live || run.output.descriptor() == -1);
  FrameBlockReader reader(mapping.data(), live ? Start::kLive : Start::kOldest);
  bool goes_on = true;
  if (!all && !live) {
    for (const Unit& unit : TakeDecodable(reader)) {
      goes_on = goes_on && PassOn(unit, run);
    }
  }
  const RingEnd end = goes_on ? Follow(reader, mapping, run) : RingEnd::kRunIsOver;
  run.earlier = AllCounters(reader, run);
  return end;
}

// Returns whether it was stopped, and not only nobody left who reads.
bool RunVideo(const CommandLine& line) {
  std::signal(SIGPIPE, SIG_IGN);  // a closed pipe is seen where it is written to
  const std::string output = line.output.empty() && !line.statistics ? "-" : line.output;
  Run run = {.line = line,
             .output = VideoOutput(output, line.force),
             .end = RunEnd(line.duration_s),
             .statistics = VideoStatistics(output == "-" ? stderr : stdout, line.json)};
  for (bool is_first = true;; is_first = false) {
    FrameBlockMapping mapping;
    bool waited = false;
    if (!OpenBlock(mapping, run, waited)) {
      break;
    }
    if (is_first) {
      run.statistics.Start();
    }
    if (FollowRing(run, mapping, waited || !is_first) == RingEnd::kRunIsOver) {
      break;
    }
    std::fprintf(stderr, "the frame ring has been removed, looking for another\n");
    ++run.earlier.restarts;
  }
  run.output.Close();
  run.statistics.PrintSummary(stderr, run.earlier);
  return run.end.stopped();
}

constexpr char kFooter[] =
    "Where it begins: a player needs a sequence parameter set, so a running ring is read from the "
    "newest unit on that opens with one, at most 100 units back; without such a unit, from the "
    "next unit on. Statistics alone begin with the next unit, too. A ring that appears, or begins "
    "anew with the daemon, is read from its first unit on. To watch it: kestrelctl watch, whose "
    "--print shows what to pipe it into.\n"
    "A ring of an earlier run stays until the daemon starts again; what it holds counts as old, "
    "see --live.\n\n"
    "Ends with Ctrl-C, SIGTERM or when the pipe is closed, and sums up on standard error. Exit "
    "code: 0, or 1 when something could not be done.\n\n"
    "  kestrelctl video --output flight.h264 --stats";

}  // namespace

bool StreamVideoToStandardOutput() { return RunVideo({.output = "-"}); }

void AddVideoSubcommand(CLI::App& app) {
  CLI::App* const command = app.add_subcommand(
      "video", "Follows the frame ring: the live H.264 stream to a pipe or file, or statistics");
  const auto line = std::make_shared<CommandLine>();
  command
      ->add_option("--output", line->output,
                   "Write the video, Annex B, to this file; - is standard output, which is the "
                   "default without --stats")
      ->type_name("FILE");
  command->add_flag("--force", line->force, "Replace the file, should it exist");
  auto* const statistics = command->add_flag(
      "--stats", line->statistics,
      "A line a second on standard output: frames per second, bit rate, units lost, "
      "restarts of the daemon, picture size (on standard error with --output -)");
  command->add_flag("--json", line->json, "With --stats: a JSON object a second")
      ->needs(statistics);
  auto* const oldest = command->add_flag("--oldest", line->oldest,
                                         "Begin with all that the ring holds, at most 100 units");
  command
      ->add_flag("--live", line->live,
                 "Begin with the next unit, whatever it is: least delay, but a player shows "
                 "nothing before the camera's next parameter set")
      ->excludes(oldest);
  command->add_option("--count", line->count, "End after so many units")
      ->check(WholeNumberBetween(1, kMaxUnits))
      ->type_name("UNITS");
  command->add_option("--duration", line->duration_s, "End after so many seconds, waiting included")
      ->check(NumberBetween(0.01, kMaxSeconds))
      ->type_name("SECONDS");
  command->footer(kFooter);
  command->callback([line] { RunVideo(*line); });
}

}  // namespace kestrelbridge::tools
