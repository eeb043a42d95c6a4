#include "net/clock.h"

#include <gtest/gtest.h>

namespace kestrelbridge::test {
namespace {

TEST(Clock, TruncatesToMillisecondsAndWrapsAt32Bits) {
  EXPECT_EQ(MillisecondsOf({.tv_sec = 0, .tv_nsec = 999'999}), 0U);
  EXPECT_EQ(MillisecondsOf({.tv_sec = 2, .tv_nsec = 1'000'000}), 2001U);
  EXPECT_EQ(MillisecondsOf({.tv_sec = 4'294'967, .tv_nsec = 295'999'999}), UINT32_MAX);
  EXPECT_EQ(MillisecondsOf({.tv_sec = 4'294'967, .tv_nsec = 296'000'000}), 0U);
}

TEST(Clock, AStampIsNeverZeroAndNeverAheadOfItsTime) {
  for (const std::uint32_t now : {UINT32_MAX, 0U, 1U, 2U}) {
    EXPECT_NE(StampOf(now), 0U);
    EXPECT_LE(now - StampOf(now), 1U) << now;
  }
}

}  // namespace
}  // namespace kestrelbridge::test
