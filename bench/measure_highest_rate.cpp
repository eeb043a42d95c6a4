#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "measurements.h"
#include "subjects.h"

namespace kestrelbridge::bench {
namespace {

constexpr Seconds kProofTime{10};
constexpr Seconds kProbeTime{0.5};
constexpr double kFirstMbit = 1000;
constexpr double kLowestMbit = 10;        // with less the camera would fall silent
constexpr double kHighestMbit = 100'000;  // no core receives that much
constexpr double kFirstStep = 1.6;
constexpr double kNextStep = 1.15;  // from what an earlier repetition has found
constexpr double kFinestStep = 1.03;
constexpr double kFiner = 2.5;
constexpr double kStepBack = 1.25;  // a hiccup of the machine costs more than the search saw
constexpr double kMostGain = 1.3;   // over an earlier repetition's, which a hiccup had held down
constexpr int kMaxProofs = 10;
constexpr std::chrono::milliseconds kSettle{10};
constexpr std::chrono::seconds kPatience{2};
constexpr std::chrono::milliseconds kLookForDrops{200};
// A load that reaches less than this share of its rate is itself the limit.
constexpr double kLoadKeepsUp = 0.98;

struct Trial {
  bool whole = false;  // no unit was lost
  double megabits_per_second = 0;
};

// The subject has taken in everything that was sent to it.
void AwaitEmptySocket(const Subject& subject) {
  const Clock::time_point deadline = Clock::now() + kPatience;
  while (LookAtSocket(subject.camera.PeerPort()).queued_bytes != 0 && Clock::now() < deadline) {
    std::this_thread::sleep_for(kSettle);
  }
  std::this_thread::sleep_for(kSettle);  // and has done with the last one
}

// Ends early when the kernel has dropped something: a unit is lost then.
Trial Try(Subject& subject, Load& load, double megabits_per_second, Seconds duration) {
  // A unit is published when the next one begins. So a whole one goes ahead: the trial before may
  // have left half of one.
  AwaitEmptySocket(subject);
  subject.camera.SendUnit(load.Stream(), load.NextUnit(), SendWay::kEach);
  AwaitEmptySocket(subject);
  UnitCounter counter;
  const std::uint16_t port = subject.camera.PeerPort();
  const std::uint64_t dropped = LookAtSocket(port).dropped;
  Clock::time_point look = Clock::now();
  const auto nothing_dropped = [&] {
    counter.Look();
    if (Clock::now() - look < kLookForDrops) {
      return true;
    }
    look = Clock::now();
    return LookAtSocket(port).dropped == dropped;
  };
  const LoadReport report = load.Run({.megabits_per_second = megabits_per_second,
                                      .duration = duration,
                                      .busy_wait = true,
                                      .way = SendWay::kSegmented,
                                      .go_on = nothing_dropped});
  AwaitEmptySocket(subject);
  subject.camera.Drain();
  subject.program->CheckAlive();
  return {.whole = counter.Look() == report.units,
          .megabits_per_second = report.Megabits() / report.elapsed.count()};
}

struct Limit {
  double megabits_per_second = 0;
  bool by_load = false;  // the load could not send any faster
  bool proven = false;
};

// Steps up while nothing is lost and down while something is, in ever finer steps.
double Search(Subject& subject, Load& load, double rate, double step) {
  while (step > kFinestStep) {
    Trial trial = Try(subject, load, rate, kProbeTime);
    const bool up = trial.whole;
    while (trial.whole == up && rate > kLowestMbit && rate < kHighestMbit) {
      if (up && trial.megabits_per_second < kLoadKeepsUp * rate) {
        return trial.megabits_per_second;
      }
      rate = up ? rate * step : rate / step;
      trial = Try(subject, load, rate, kProbeTime);
    }
    rate = trial.whole ? rate : rate / step;
    step = 1 + (step - 1) / kFiner;
  }
  return rate;
}

// What the search finds must stand the test of time.
Limit FindLimit(Subject& subject, DatagramStream& stream, double earlier_mbit) {
  Load load(subject.camera, stream, RenumberCameraStream);
  Try(subject, load, kFirstMbit / 10, kProbeTime);  // start-up: the first unit stays behind
  const bool first = earlier_mbit == 0;
  double rate =
      Search(subject, load, first ? kFirstMbit : earlier_mbit, first ? kFirstStep : kNextStep);
  rate = first ? rate : std::min(rate, kMostGain * earlier_mbit);
  Trial proof;
  for (int i = 0; i < kMaxProofs && !proof.whole; ++i) {
    rate = i == 0 ? rate : rate / kStepBack;
    proof = Try(subject, load, rate, kProofTime);
  }
  return {.megabits_per_second = proof.megabits_per_second,
          .by_load = proof.whole && proof.megabits_per_second < kLoadKeepsUp * rate,
          .proven = proof.whole};
}

struct Contender {
  const char* name;
  std::function<std::unique_ptr<Subject>()> start;
  std::vector<double> rates;  // Mbit/s, one a repetition
};

}  // namespace

Findings MeasureHighestRate(const Setting& setting) {
  DatagramStream stream = MakeCameraStream(setting.clip);
  Contender contenders[] = {
      {"floor", [&] { return StartFloor(setting, "receive"); }, {}},
      {"kestrelbridge", [&] { return StartDaemon(setting); }, {}},
      {"floor that acknowledges", [&] { return StartFloor(setting, "acknowledge"); }, {}}};
  int by_load = 0;
  int unproven = 0;
  for (int repetition = 1; repetition <= setting.repetitions; ++repetition) {
    for (auto& [name, start, rates] : contenders) {
      const Limit limit = FindLimit(*start(), stream, rates.empty() ? 0 : rates.back());
      rates.push_back(limit.megabits_per_second);
      by_load += limit.by_load ? 1 : 0;
      unproven += limit.proven ? 0 : 1;
      std::fprintf(stderr, "    highest rate, repetition %d of %d: %s %.0f Mbit/s%s\n", repetition,
                   setting.repetitions, name, limit.megabits_per_second,
                   limit.proven ? "" : ", not proven: something was lost each time");
    }
  }
  const auto& [floor, ours, acknowledging] = contenders;
  return {
      .rows = {MakeRow({.what = "highest rate without loss for 10 s",
                        .other = floor.name,
                        .unit = "Mbit/s",
                        .decimals = 0,
                        .ours = ours.rates,
                        .others = floor.rates,
                        .aim = Comparison::Aim::kRatioAtLeast,
                        .limit = 0.9}),
               MakeRow({.what = "the same",
                        .other = acknowledging.name,
                        .unit = "Mbit/s",
                        .decimals = 0,
                        .ours = ours.rates,
                        .others = acknowledging.rates})},
      .notes = {"Highest rate: of " + std::to_string(3 * setting.repetitions) + " figures, " +
                std::to_string(by_load) + " are limited by the load, " + std::to_string(unproven) +
                " did not stand ten seconds in " + std::to_string(kMaxProofs) + " tries.\n"}};
}

}  // namespace kestrelbridge::bench
