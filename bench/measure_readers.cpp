#include <sys/resource.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <thread>

#include "awake_core.h"
#include "measurements.h"
#include "subjects.h"
#include "tools/common/tool_error.h"
#include "tools/wire/camera_wire.h"

namespace kestrelbridge::bench {
namespace {

constexpr double kMicrosecondsPerSecond = 1e6;
constexpr std::uint16_t kEchoPort = 9020;

// --- from the completing datagram to a waiting reader ------------------------------------------

constexpr int kUnits = 400;
constexpr std::chrono::milliseconds kPeriod{6};
constexpr std::chrono::milliseconds kHeadStart{2};  // of a unit's other datagrams
constexpr std::chrono::milliseconds kGivenUp{200};
constexpr std::chrono::microseconds kFrameTime{33'333};
constexpr int kUnitsAtFrameTime = 60;

// The ring of the program under test.
struct Ring {
  Ring() {
    if (!mapping.Open()) {
      throw tools::ToolError("the program under test has made no ring");
    }
    reader.emplace(mapping.data());
  }
  FrameBlockMapping mapping;
  std::optional<FrameBlockReader> reader;
};

double Microseconds(Clock::duration time) { return Seconds(time).count() * kMicrosecondsPerSecond; }

// Sleeps until the reader has handed out a unit; false when none came.
bool AwaitUnit(FrameBlockReader& reader, std::vector<std::uint8_t>& unit) {
  const Clock::time_point end = Clock::now() + kGivenUp;
  while (!reader.Next(unit)) {
    if (!reader.Wait(end - Clock::now()) && Clock::now() >= end) {
      return false;
    }
  }
  return true;
}

// The subject with its ring well filled, and a reader at its newest unit.
struct Stage {
  Stage(Subject& subject, DatagramStream& stream)
      : load(subject.camera, stream, RenumberCameraStream) {
    load.Run({.megabits_per_second = 40, .duration = Seconds{0.5}});
    ring.emplace();
  }
  Load load;
  std::optional<Ring> ring;
  std::vector<std::uint8_t> unit;
};

// From right before the datagram that completes a unit is sent until this very thread, which sleeps
// in between, holds the unit. The unit's other datagrams have been dealt with by then.
std::vector<double> MeasureEarly(Subject& subject, DatagramStream& stream) {
  Stage stage(subject, stream);
  FrameBlockReader& reader = *stage.ring->reader;
  std::vector<double> samples;
  Clock::time_point due = Clock::now();
  for (int i = 0; i < kUnits; ++i, due += kPeriod) {
    WaitUntil(due, false);
    const DatagramStream::Unit& sent_unit = stage.load.NextUnit();
    DatagramStream::Unit rest = sent_unit;
    --rest.datagram_count;
    subject.camera.SendUnit(stream, rest, SendWay::kEach);
    WaitUntil(due + kHeadStart, false);
    while (reader.Next(stage.unit)) {
    }
    const Clock::time_point sent = Clock::now();
    subject.camera.Send(stream.DatagramsOf(sent_unit).back());
    if (AwaitUnit(reader, stage.unit)) {
      samples.push_back(Microseconds(Clock::now() - sent));
    }
    subject.camera.Drain();
  }
  return samples;
}

// The same at 30 units a second, with a daemon that learns from the next unit that one is complete.
std::vector<double> MeasureDefault(Subject& subject, DatagramStream& stream) {
  Stage stage(subject, stream);
  FrameBlockReader& reader = *stage.ring->reader;
  std::vector<double> samples;
  Clock::time_point due = Clock::now();
  std::optional<Clock::time_point> completed;
  for (int i = 0; i < kUnitsAtFrameTime; ++i, due += kFrameTime) {
    WaitUntil(due, false);
    const Clock::time_point sent = Clock::now();
    subject.camera.SendUnit(stream, stage.load.NextUnit(), SendWay::kEach);
    if (AwaitUnit(reader, stage.unit) && completed) {
      samples.push_back(Microseconds(Clock::now() - *completed));
    }
    completed = sent;
    subject.camera.Drain();
  }
  return samples;
}

// A datagram of the same size to the echo and back to this thread, which sleeps meanwhile.
std::vector<double> MeasureEcho(Subject& subject, DatagramStream& stream) {
  const tools::UdpSocket receiver({.address = Loopback(), .port = kEchoPort});
  Load load(subject.camera, stream, RenumberCameraStream);
  std::array<std::uint8_t, tools::kMaxDatagramSize> buffer;
  std::vector<double> samples;
  Clock::time_point due = Clock::now();
  for (int i = 0; i < kUnits; ++i, due += kPeriod) {
    WaitUntil(due, false);
    const auto datagram = stream.DatagramsOf(load.NextUnit()).back();
    const Clock::time_point sent = Clock::now();
    subject.camera.Send(datagram);
    std::span<const std::uint8_t> received;
    UdpPeer from;
    if (receiver.WaitForDatagram(kGivenUp) && receiver.Receive(buffer, received, from)) {
      samples.push_back(Microseconds(Clock::now() - sent));
    }
  }
  return samples;
}

// --- what readers cost -------------------------------------------------------------------------

constexpr Seconds kWatched{4};
constexpr double kUnitsPerSecond = 30;
constexpr std::array kReaderCounts = {0, 1, 10};

// Readers in threads of the load's core, each waiting and taking every unit.
class Readers {
 public:
  explicit Readers(int count) {
    for (int i = 0; i < count; ++i) {
      threads_.emplace_back([this] { Read(); });
    }
  }
  Readers(const Readers&) = delete;
  Readers& operator=(const Readers&) = delete;
  ~Readers() { Stop(); }

  // Of all of them, in microseconds.
  double Stop() {
    end_ = true;
    for (std::thread& thread : threads_) {
      thread.join();
    }
    threads_.clear();
    return static_cast<double>(spent_ns_) / 1e3;
  }

 private:
  void Read() {
    Ring ring;
    std::vector<std::uint8_t> unit;
    const auto begin = Spent();
    while (!end_) {
      if (!ring.reader->Next(unit)) {
        ring.reader->Wait(kGivenUp);
      }
    }
    spent_ns_ += Spent() - begin;
  }

  static std::int64_t Spent() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
  }

  std::atomic<bool> end_{false};
  std::atomic<std::int64_t> spent_ns_{0};
  std::vector<std::thread> threads_;
};

struct Costs {
  std::array<std::vector<double>, kReaderCounts.size()> daemon_us_per_unit;
  std::vector<double> reader_ms_per_second;
};

double AverageUnit(const DatagramStream& stream) {
  return static_cast<double>(stream.video_length) / static_cast<double>(stream.units.size());
}

void MeasureCosts(Subject& subject, DatagramStream& stream, Costs& costs) {
  Load load(subject.camera, stream, RenumberCameraStream);
  load.Run({.megabits_per_second = 40, .duration = Seconds{0.5}});
  const double megabits_per_second = AverageUnit(stream) * kUnitsPerSecond * 8 / 1e6;
  for (std::size_t i = 0; i < kReaderCounts.size(); ++i) {
    Readers readers(kReaderCounts[i]);
    const auto before = subject.program->ProcessorTime();
    const LoadReport report =
        load.Run({.megabits_per_second = megabits_per_second, .duration = kWatched});
    const std::chrono::duration<double, std::micro> spent =
        subject.program->ProcessorTime() - before;
    costs.daemon_us_per_unit[i].push_back(spent.count() / static_cast<double>(report.units));
    const double readers_us = readers.Stop();
    if (kReaderCounts[i] == 1) {
      costs.reader_ms_per_second.push_back(readers_us / 1e3 / report.elapsed.count());
    }
  }
}

}  // namespace

Findings MeasureReaders(const Setting& setting) {
  DatagramStream large = MakeCameraStream(setting.clip);
  DatagramStream small = MakeCameraStream(setting.demo_clip);
  Latencies early, echo, by_default;
  Costs of_large, of_small;
  for (int repetition = 1; repetition <= setting.repetitions; ++repetition) {
    std::fprintf(stderr, "    readers, repetition %d of %d\n", repetition, setting.repetitions);
    {
      const AwakeCore subjects_core(setting.cores.subject);
      const AwakeCore readers_core(setting.cores.load);
      echo.Add(MeasureEcho(*StartEcho(setting, kEchoPort), large));
      early.Add(MeasureEarly(*StartDaemon(setting, {"--low-latency"}), large));
    }
    const auto daemon = StartDaemon(setting);
    by_default.Add(MeasureDefault(*daemon, large));
    MeasureCosts(*daemon, large, of_large);
    MeasureCosts(*daemon, small, of_small);
  }
  const std::string what = "completing datagram to a waiting reader, ";
  const auto reader_row = [](const DatagramStream& stream, const Costs& costs, double limit) {
    return MakeRow({.what = "processor time of a waiting reader, a second of 30 units of " +
                            FormatNumber(AverageUnit(stream) / 1e3, 0) + " kB",
                    .other = "",
                    .unit = "ms",
                    .ours = costs.reader_ms_per_second,
                    .others = {},
                    .aim = limit == 0 ? Comparison::Aim::kNone : Comparison::Aim::kOursBelow,
                    .limit = limit});
  };
  const auto& cost = of_small.daemon_us_per_unit;
  return {
      .rows = {CompareLatencies(what + "--low-latency, p50", "bare echo", early.p50, echo.p50, 1.3),
               CompareLatencies(what + "--low-latency, p99", "bare echo", early.p99, echo.p99, 1.3),
               CompareLatencies(what + "default at 30 units a second, p50", "--low-latency",
                                by_default.p50, early.p50, 0),
               reader_row(small, of_small, 1), reader_row(large, of_large, 0),
               CompareLatencies("daemon's CPU time per unit, one waiting reader", "no reader",
                                cost[1], cost[0], 0),
               CompareLatencies("daemon's CPU time per unit, ten waiting readers", "no reader",
                                cost[2], cost[0], 0)},
      .notes = {
          FormatDistribution("Completing datagram to a waiting reader, --low-latency", early.all),
          FormatDistribution("A datagram to the bare echo and back", echo.all)}};
}

}  // namespace kestrelbridge::bench
