#include <chrono>
#include <cstdio>

#include "measurements.h"
#include "subjects.h"

namespace kestrelbridge::bench {
namespace {

constexpr int kUnits = 600;
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

void Gather(const std::vector<double>& samples, std::vector<double>& p50, std::vector<double>& p99,
            std::vector<double>& all) {
  p50.push_back(Median(samples));
  p99.push_back(Quantile(samples, 0.99));
  all.insert(all.end(), samples.begin(), samples.end());
}

}  // namespace

Findings MeasureVisibility(const Setting& setting) {
  DatagramStream stream = MakeCameraStream(setting.clip);
  Comparison p50{.what = "unit complete to visible, p50",
                 .other = "floor",
                 .unit = "us",
                 .decimals = 1,
                 .ours = {},
                 .others = {}};
  Comparison p99 = p50;
  p99.what = "unit complete to visible, p99";
  p99.aim = Comparison::Aim::kOursBelow;
  p99.limit = 100;
  std::vector<double> daemon;
  std::vector<double> floor;
  for (int repetition = 1; repetition <= setting.repetitions; ++repetition) {
    std::fprintf(stderr, "    time to visible, repetition %d of %d\n", repetition,
                 setting.repetitions);
    Gather(MeasureOne(*StartFloor(setting, "acknowledge"), stream), p50.others, p99.others, floor);
    Gather(MeasureOne(*StartDaemon(setting), stream), p50.ours, p99.ours, daemon);
  }
  return {.rows = {MakeRow(p50), MakeRow(p99)},
          .notes = {FormatDistribution("Unit complete to visible, kestrelbridge", daemon),
                    FormatDistribution("Unit complete to visible, floor", floor)}};
}

}  // namespace kestrelbridge::bench
