#include <array>
#include <chrono>
#include <cstdio>
#include <thread>

#include "measurements.h"
#include "subjects.h"

namespace kestrelbridge::bench {
namespace {

constexpr std::array kRatesMbit = {40.0, 200.0};
constexpr Seconds kVideoTime{2};
constexpr Seconds kIdleTime{1.5};
constexpr std::chrono::milliseconds kSettle{30};

// What one program needs, for each rate; and per second without any video.
struct Need {
  std::array<std::vector<double>, kRatesMbit.size()> us_per_datagram;
  std::array<std::vector<double>, kRatesMbit.size()> slope_us;  // without the idle part
  std::vector<double> idle_us_per_second;
};

double MicrosecondsOf(std::chrono::nanoseconds time) {
  return static_cast<double>(time.count()) / 1e3;
}

// Processor time of the subject while the load runs.
double RunTimed(const Subject& subject, Load& load, const LoadPlan& plan, LoadReport& report) {
  const auto before = subject.program->ProcessorTime();
  report = load.Run(plan);
  std::this_thread::sleep_for(kSettle);  // it may still have a burst before it
  return MicrosecondsOf(subject.program->ProcessorTime() - before);
}

void MeasureOne(std::unique_ptr<Subject> subject, DatagramStream& stream, Need& need) {
  Load load(subject->camera, stream, RenumberCameraStream);
  LoadReport report;
  // The ring's first lap and the first command data are start-up.
  load.Run({.megabits_per_second = kRatesMbit.back(), .duration = Seconds{0.6}});
  const double idle_us =
      RunTimed(*subject, load, {.duration = kIdleTime}, report) / report.elapsed.count();
  need.idle_us_per_second.push_back(idle_us);
  for (std::size_t i = 0; i < kRatesMbit.size(); ++i) {
    const double us = RunTimed(
        *subject, load, {.megabits_per_second = kRatesMbit[i], .duration = kVideoTime}, report);
    const auto datagrams = static_cast<double>(report.video_datagrams);
    need.us_per_datagram[i].push_back(us / datagrams);
    need.slope_us[i].push_back((us - idle_us * report.elapsed.count()) / datagrams);
  }
}

std::string RateText(std::size_t i) { return FormatNumber(kRatesMbit[i], 0) + " Mbit/s"; }

// What the daemon's clocks add to each datagram at the lowest rate.
std::string IdleNote(const DatagramStream& stream, const Need& daemon, const Need& floor) {
  const double idle_us = Median(daemon.idle_us_per_second) - Median(floor.idle_us_per_second);
  const double datagrams_per_megabit = static_cast<double>(stream.datagrams.size()) /
                                       (static_cast<double>(stream.video_length) * 8e-6);
  const double added_us = idle_us / (kRatesMbit.front() * datagrams_per_megabit);
  return "CPU without video: nearly all of it is waking up. Remote control looks at its block 50 "
         "times "
         "a second,\ntelemetry ticks 10 times, the watchdogs once: periods that the daemon's "
         "neighbours "
         "rely on. Spread over\nthe datagrams they are " +
         FormatNumber(added_us, 2) + " us of each at " + RateText(0) + ", " +
         FormatNumber(100 * added_us / Median(floor.us_per_datagram.front()), 0) +
         " % of the floor's time.\n";
}

}  // namespace

Findings MeasureProcessorTime(const Setting& setting) {
  DatagramStream stream = MakeCameraStream(setting.clip);
  Need daemon;
  Need floor;
  Need acknowledging;
  for (int repetition = 1; repetition <= setting.repetitions; ++repetition) {
    std::fprintf(stderr, "    processor time, repetition %d of %d\n", repetition,
                 setting.repetitions);
    MeasureOne(StartFloor(setting, "receive"), stream, floor);
    MeasureOne(StartDaemon(setting), stream, daemon);
    MeasureOne(StartFloor(setting, "acknowledge"), stream, acknowledging);
  }
  Findings findings;
  for (std::size_t i = 0; i < kRatesMbit.size(); ++i) {
    findings.rows.push_back(MakeRow({.what = "CPU time per video datagram, " + RateText(i),
                                     .other = "floor",
                                     .unit = "us",
                                     .ours = daemon.us_per_datagram[i],
                                     .others = floor.us_per_datagram[i],
                                     .aim = Comparison::Aim::kRatioAtMost,
                                     .limit = 1.10}));
    findings.rows.push_back(MakeRow({.what = "the same",
                                     .other = "floor that acknowledges",
                                     .unit = "us",
                                     .ours = daemon.us_per_datagram[i],
                                     .others = acknowledging.us_per_datagram[i]}));
    findings.rows.push_back(MakeRow({.what = "the same, without the idle part",
                                     .other = "floor that acknowledges",
                                     .unit = "us",
                                     .ours = daemon.slope_us[i],
                                     .others = acknowledging.slope_us[i]}));
  }
  findings.rows.push_back(MakeRow({.what = "CPU time without video, per second",
                                   .other = "floor",
                                   .unit = "us",
                                   .decimals = 0,
                                   .ours = daemon.idle_us_per_second,
                                   .others = floor.idle_us_per_second}));
  findings.notes.push_back(
      "CPU: units of " + std::to_string(stream.video_length / stream.units.size()) +
      " bytes on average, " +
      FormatNumber(
          static_cast<double>(stream.datagrams.size()) / static_cast<double>(stream.units.size()),
          1) +
      " datagrams each, every unit in one burst; ten datagrams of status pushes a second.\n");
  findings.notes.push_back(IdleNote(stream, daemon, floor));
  return findings;
}

}  // namespace kestrelbridge::bench
