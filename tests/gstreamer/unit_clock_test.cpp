// Time stamps made of arrival times: every property over long simulated streams.
#include "gstreamer/unit_clock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

namespace kestrelbridge::gstreamer::test {
namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr Nanoseconds kPeriod{33'333'333};

// A camera, and the way to us: what is sent at `sent` arrives a few milliseconds later.
struct Stream {
  UnitClock clock;
  std::mt19937 random{1};
  double period_ns = static_cast<double>(kPeriod.count());
  double sent_ns = 1e9;
  Nanoseconds stamp{-1}, lag{0}, step{0};  // of the latest unit; lag: from its arrival to its stamp

  void Send(double delay_ms, std::uint64_t steps = 1) {
    sent_ns += period_ns * static_cast<double>(steps);
    Arrive(Nanoseconds(static_cast<std::int64_t>(sent_ns + delay_ms * 1e6)), steps);
  }
  void Arrive(Nanoseconds arrival, std::uint64_t steps = 1) {
    const Nanoseconds next = clock.Stamp(arrival, steps);
    step = next - stamp;
    ASSERT_GT(step.count(), 0) << "time ran backwards";
    stamp = next;
    lag = stamp - arrival;
  }
  double Jitter(double most_ms) { return std::uniform_real_distribution(0.0, most_ms)(random); }
};

TEST(UnitClock, ShowsTheStreamsOwnPeriodNotTheNetworksJitter) {
  Stream stream;
  for (int unit = 0; unit < 300; ++unit) {
    stream.Send(stream.Jitter(15));
  }
  for (int unit = 0; unit < 1000; ++unit) {
    stream.Send(stream.Jitter(15));
    ASSERT_NEAR(static_cast<double>(stream.step.count()), 33.33e6, 1.2e6);
    ASSERT_LE(stream.lag, Nanoseconds(0));
    ASSERT_GE(stream.lag, -UnitClock::kJitter);
  }
  EXPECT_NEAR(static_cast<double>(stream.clock.period().count()), 33.33e6, 0.2e6);
}

TEST(UnitClock, LagDoesNotGrowInAnHourOfDrift) {
  for (const double drift : {200e-6, -200e-6}) {
    Stream stream;
    stream.period_ns *= 1 + drift;
    double early_sum = 0;
    double late_sum = 0;
    constexpr int kUnits = 3600 * 30;
    for (int unit = 0; unit < kUnits; ++unit) {
      stream.Send(stream.Jitter(10));
      ASSERT_LE(stream.lag, Nanoseconds(0));
      ASSERT_GE(stream.lag, -UnitClock::kJitter);
      const auto lag_ms = static_cast<double>(stream.lag.count()) / 1e6;
      early_sum += unit >= 1000 && unit < 4000 ? lag_ms : 0;
      late_sum += unit >= kUnits - 3000 ? lag_ms : 0;
      if (unit > 1000) {
        ASSERT_NEAR(static_cast<double>(stream.step.count()), 33.33e6, 1e6);
      }
    }
    EXPECT_NEAR(early_sum / 3000, late_sum / 3000, 0.3) << drift;
  }
}

TEST(UnitClock, GoesOnAtOnceAfterAPause) {
  for (const auto pause : {milliseconds(5000), milliseconds(5017), milliseconds(140)}) {
    Stream stream;
    for (int unit = 0; unit < 300; ++unit) {
      stream.Send(stream.Jitter(5));
    }
    stream.sent_ns += static_cast<double>(duration_cast<Nanoseconds>(pause).count());
    for (int unit = 0; unit < 100; ++unit) {
      stream.Send(stream.Jitter(5));
      ASSERT_LE(stream.lag, Nanoseconds(0));
      ASSERT_GE(stream.lag, -UnitClock::kJitter) << "unit " << unit << " after " << pause.count();
    }
  }
}

TEST(UnitClock, ABurstLeavesNoLagBehind) {
  Stream stream;
  for (int unit = 0; unit < 100; ++unit) {
    stream.Send(0);
  }
  // Twelve units come together, when the network goes on.
  const auto together =
      Nanoseconds(static_cast<std::int64_t>(stream.sent_ns + 12 * stream.period_ns));
  for (int unit = 0; unit < 12; ++unit) {
    stream.Arrive(together);
    ASSERT_LE(stream.lag, 2 * kPeriod);
  }
  stream.sent_ns += 12 * stream.period_ns;
  for (int unit = 0; unit < 10; ++unit) {
    stream.Send(0);
  }
  EXPECT_LE(stream.lag, Nanoseconds(0));
}

TEST(UnitClock, KnowsTheTimeOfWhatIsMissing) {
  Stream counted;  // the ring told how many
  Stream silent;   // the air took them
  for (int unit = 0; unit < 200; ++unit) {
    counted.Send(counted.Jitter(4));
    silent.Send(silent.Jitter(4));
  }
  counted.Send(1, 4);
  silent.sent_ns += 3 * silent.period_ns;
  silent.Send(1);
  EXPECT_NEAR(static_cast<double>(counted.step.count()), 4 * 33.33e6, 1e6);
  EXPECT_NEAR(static_cast<double>(silent.step.count()), 4 * 33.33e6, 1e6);
}

TEST(UnitClock, LearnsAnotherFrameRate) {
  Stream stream;
  stream.clock.ExpectPeriod(Nanoseconds(40'000'000));  // so the stream says, wrongly
  for (const double rate : {60.0, 24.0, 120.0}) {
    stream.period_ns = 1e9 / rate;
    for (int unit = 0; unit < 200; ++unit) {
      stream.Send(stream.Jitter(3));
      ASSERT_LE(stream.lag, 2 * kPeriod);
    }
    EXPECT_NEAR(static_cast<double>(stream.clock.period().count()), 1e9 / rate, 0.3e6) << rate;
    EXPECT_NEAR(static_cast<double>(stream.step.count()), 1e9 / rate, 0.8e6) << rate;
  }
}

}  // namespace
}  // namespace kestrelbridge::gstreamer::test
