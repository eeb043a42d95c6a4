#include <chrono>
#include <cstdio>
#include <optional>

#include "awake_core.h"
#include "measurements.h"
#include "subjects.h"

namespace kestrelbridge::bench {
namespace {

constexpr int kUnits = 400;
constexpr std::chrono::milliseconds kPeriod{5};
constexpr std::chrono::milliseconds kGivenUp{200};
constexpr double kMicrosecondsPerSecond = 1e6;

// The camera's clock is read right before the system call that sends the datagram which completes a
// unit: the header of the next one. Then the same thread looks at the ring until the unit is there.
// So the figure holds the sending itself; on the loopback a datagram has arrived when that returns.
std::vector<double> MeasureOne(Subject& subject, DatagramStream& stream) {
  Load load(subject.camera, stream, RenumberCameraStream);
  load.Run({.megabits_per_second = 40, .duration = Seconds{0.5}});
  WaitUntil(Clock::now() + std::chrono::milliseconds{50}, false);
  const UnitCounter ring;
  std::vector<double> samples;
  Clock::time_point due = Clock::now();
  for (int i = 0; i < kUnits; ++i, due += kPeriod) {
    WaitUntil(due, false);
    const DatagramStream::Unit& unit = load.NextUnit();
    const std::uint16_t before = ring.Newest();
    const Clock::time_point sent = Clock::now();
    subject.camera.Send(stream.DatagramsOf(unit).front());
    Clock::time_point now = Clock::now();
    while (ring.Newest() == before && now - sent < kGivenUp) {
      now = Clock::now();
    }
    samples.push_back(Seconds(now - sent).count() * kMicrosecondsPerSecond);
    DatagramStream::Unit rest = unit;
    ++rest.first_datagram;
    --rest.datagram_count;
    subject.camera.SendUnit(stream, rest, SendWay::kEach);
    subject.camera.Drain();
  }
  return samples;
}

// The subject's core asleep between two units, or kept awake.
struct Way {
  bool awake = false;
  std::string name;
  Latencies daemon, floor;
};

void Repeat(const Setting& setting, DatagramStream& stream, Way& way) {
  std::optional<AwakeCore> awake;
  if (way.awake) {
    awake.emplace(setting.cores.subject);
  }
  way.floor.Add(MeasureOne(*StartFloor(setting, "acknowledge"), stream));
  way.daemon.Add(MeasureOne(*StartDaemon(setting), stream));
}

void Report(const Way& way, Findings& findings) {
  const std::string what = "unit complete to visible, core " + way.name + ", p";
  findings.rows.push_back(MakeRow({.what = what + "50",
                                   .other = "floor",
                                   .unit = "us",
                                   .decimals = 1,
                                   .ours = way.daemon.p50,
                                   .others = way.floor.p50}));
  findings.rows.push_back(MakeRow({.what = what + "99",
                                   .other = "floor",
                                   .unit = "us",
                                   .decimals = 1,
                                   .ours = way.daemon.p99,
                                   .others = way.floor.p99,
                                   .aim = Comparison::Aim::kOursBelow,
                                   .limit = 100}));
  const std::string title = "Unit complete to visible, core " + way.name + ", ";
  findings.notes.push_back(FormatDistribution(title + "kestrelbridge", way.daemon.all));
  findings.notes.push_back(FormatDistribution(title + "floor", way.floor.all));
}

}  // namespace

Findings MeasureVisibility(const Setting& setting) {
  DatagramStream stream = MakeCameraStream(setting.clip);
  Way ways[] = {{.awake = true, .name = "awake", .daemon = {}, .floor = {}},
                {.awake = false, .name = "asleep", .daemon = {}, .floor = {}}};
  for (int repetition = 1; repetition <= setting.repetitions; ++repetition) {
    std::fprintf(stderr, "    time to visible, repetition %d of %d\n", repetition,
                 setting.repetitions);
    for (Way& way : ways) {
      Repeat(setting, stream, way);
    }
  }
  Findings findings;
  for (const Way& way : ways) {
    Report(way, findings);
  }
  return findings;
}

}  // namespace kestrelbridge::bench
