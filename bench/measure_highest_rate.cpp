#include <chrono>
#include <cstdio>
#include <thread>

#include "measurements.h"
#include "subjects.h"

namespace kestrelbridge::bench {
namespace {

constexpr Seconds kProofTime{10};
constexpr Seconds kProbeTime{0.5};
constexpr double kLowestMbit = 200;
constexpr double kHighestMbit = 60'000;  // no core receives that much
constexpr double kFirstStep = 1.5;
constexpr double kFinestStep = 1.03;
constexpr std::chrono::milliseconds kSettle{100};
// A load that reaches less than this share of its rate is itself the limit.
constexpr double kLoadKeepsUp = 0.98;

struct Trial {
  bool whole = false;  // no unit was lost
  double megabits_per_second = 0;
};

Trial Try(Subject& subject, Load& load, double megabits_per_second, Seconds duration) {
  std::this_thread::sleep_for(kSettle);
  UnitCounter counter;
  const LoadReport report = load.Run({.megabits_per_second = megabits_per_second,
                                      .duration = duration,
                                      .pushes = true,
                                      .busy_wait = true,
                                      .way = SendWay::kSegmented,
                                      .after_unit = [&] { counter.Look(); }});
  std::this_thread::sleep_for(kSettle);
  subject.camera.Drain();
  return {.whole = counter.Look() == report.units,
          .megabits_per_second = report.Megabits() / report.elapsed.count()};
}

struct Limit {
  double megabits_per_second = 0;
  bool by_load = false;  // the load could not send any faster
};

// Steps up until a unit is lost, in ever finer steps; what is found so must then stand the test of
// time.
Limit FindLimit(Subject& subject, DatagramStream& stream, double first_guess) {
  Load load(subject.camera, stream, RenumberCameraStream);
  Try(subject, load, kLowestMbit, kProbeTime);  // start-up: the first unit stays behind
  double rate = first_guess;
  bool by_load = false;
  for (double step = first_guess > kLowestMbit ? 1.1 : kFirstStep; step > kFinestStep;
       step = 1 + (step - 1) / 2) {
    Trial trial = Try(subject, load, rate, kProbeTime);
    while (trial.whole && rate < kHighestMbit) {
      by_load = trial.megabits_per_second < kLoadKeepsUp * rate;
      if (by_load) {
        rate = trial.megabits_per_second;
        break;
      }
      rate *= step;
      trial = Try(subject, load, rate, kProbeTime);
    }
    if (by_load) {
      break;
    }
    while (!trial.whole && rate > kLowestMbit) {
      rate /= step;
      trial = Try(subject, load, rate, kProbeTime);
    }
  }
  Trial proof = Try(subject, load, rate, kProofTime);
  while (!proof.whole && rate > kLowestMbit) {
    rate /= kFinestStep;
    by_load = false;
    proof = Try(subject, load, rate, kProofTime);
  }
  return {.megabits_per_second = proof.megabits_per_second, .by_load = by_load};
}

}  // namespace

Findings MeasureHighestRate(const Setting& setting) {
  DatagramStream stream = MakeCameraStream(setting.clip);
  Comparison comparison{.what = "highest rate without loss for 10 s",
                        .other = "floor",
                        .unit = "Mbit/s",
                        .decimals = 0,
                        .ours = {},
                        .others = {},
                        .aim = Comparison::Aim::kRatioAtLeast,
                        .limit = 0.9};
  int limited_by_load = 0;
  for (int repetition = 1; repetition <= setting.repetitions; ++repetition) {
    for (const bool ours : {false, true}) {
      std::fprintf(stderr, "    highest rate, %s, repetition %d of %d: ", ours ? "daemon" : "floor",
                   repetition, setting.repetitions);
      auto& figures = ours ? comparison.ours : comparison.others;
      const auto subject = ours ? StartDaemon(setting) : StartFloor(setting, "receive");
      const double guess = figures.empty() ? kLowestMbit : figures.back();
      const Limit limit = FindLimit(*subject, stream, guess);
      figures.push_back(limit.megabits_per_second);
      limited_by_load += limit.by_load ? 1 : 0;
      std::fprintf(stderr, "%.0f Mbit/s%s\n", limit.megabits_per_second,
                   limit.by_load ? ", the load cannot do more" : "");
    }
  }
  Findings findings{.rows = {MakeRow(comparison)}, .notes = {}};
  if (limited_by_load != 0) {
    findings.notes.push_back("Highest rate: " + std::to_string(limited_by_load) + " of " +
                             std::to_string(2 * setting.repetitions) +
                             " figures are the load's own limit.\n");
  }
  return findings;
}

}  // namespace kestrelbridge::bench
