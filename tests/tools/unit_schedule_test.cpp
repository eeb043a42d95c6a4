#include "tools/unit_schedule.h"

#include <gtest/gtest.h>

namespace kestrelbridge {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr SteadyTime kStart{hours{5}};

TEST(UnitSchedule, DoesNotDriftOverALongStream) {
  UnitSchedule schedule(30);
  schedule.Start(kStart);
  EXPECT_EQ(schedule.NextDue(), kStart);
  for (int unit = 0; unit < 30 * 3600; ++unit) {
    schedule.Advance();
  }
  EXPECT_LE(std::chrono::abs(schedule.NextDue() - (kStart + hours{1})), nanoseconds{1});
}

TEST(UnitSchedule, MakesUpForUpToASecondOfLagAndDropsMore) {
  UnitSchedule schedule(10);
  schedule.Start(kStart);
  const SteadyTime second_later = kStart + UnitSchedule::kMaxLag;
  EXPECT_FALSE(schedule.DropLag(second_later));
  EXPECT_EQ(schedule.NextDue(), kStart);
  const SteadyTime later_still = second_later + milliseconds{1};
  EXPECT_TRUE(schedule.DropLag(later_still));
  EXPECT_EQ(schedule.NextDue(), later_still);
  schedule.Advance();
  EXPECT_EQ(schedule.NextDue(), later_still + milliseconds{100});
}

}  // namespace
}  // namespace kestrelbridge
