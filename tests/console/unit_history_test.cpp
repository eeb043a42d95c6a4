// Where each viewer stands among the units.

#include "console/unit_history.h"

#include <gtest/gtest.h>

#include <vector>

#include "video/numbered_unit.h"

namespace kestrelbridge::test {
namespace {

using console::Unit;
using console::UnitHistory;

constexpr std::uint64_t kPeriodUs = 33'333;

// Of the numbered units, one in 32 (7, 39, 71, ...) looks like a parameter set.
std::uint64_t ArrivalOf(std::uint32_t number) { return 1'000'000 + number * kPeriodUs; }

struct Stage {
  void Add(std::uint32_t first, std::uint32_t end, std::size_t length = 64) {
    for (std::uint32_t number = first; number < end; ++number) {
      history.Add(console::MakeUnit(NumberedUnit(number, length), ArrivalOf(number), number == 50));
    }
  }
  // The number of the next unit, as seen when `newest` has just come; -1: none.
  int Take(std::uint32_t newest) {
    const Unit* const unit = history.Take(place, ArrivalOf(newest));
    if (unit == nullptr) {
      return -1;
    }
    const auto content = unit->message->content();
    flags = content[console::kUnitFlagsOffset];
    EXPECT_EQ(unit->is_keyframe, (flags & console::kKeyframeFlag) != 0);
    EXPECT_EQ(content.size(), console::kUnitHeaderSize + PayloadOf(*unit).size());
    return static_cast<int>(NumberOf(PayloadOf(*unit)));
  }
  UnitHistory history;
  UnitHistory::Place place;
  int flags = 0;
};

constexpr int kKey = console::kKeyframeFlag;
constexpr int kGap = console::kDiscontinuityFlag;

TEST(UnitHistory, BeginsWithTheLastKeyframeAndGivesEachUnitOnce) {
  Stage stage;
  stage.Add(1, 7);
  EXPECT_EQ(stage.Take(6), -1) << "no keyframe yet";
  EXPECT_EQ(stage.history.LastKeyframe(), nullptr);
  stage.Add(7, 60);
  for (int number = 39; number < 60; ++number) {
    ASSERT_EQ(stage.Take(49), number);
    EXPECT_EQ(stage.flags, number == 39 ? kKey : number == 50 ? kGap : 0) << number;
  }
  EXPECT_EQ(stage.Take(59), -1);
  EXPECT_FALSE(stage.history.HasUnitFor(stage.place));
}

TEST(UnitHistory, BringsALateViewerToTheNewestKeyframeAndNeverBack) {
  Stage stage;
  stage.Add(1, 75);
  ASSERT_EQ(stage.Take(74), 71);
  stage.Add(75, 102);
  EXPECT_EQ(stage.Take(101), 72) << "late, but there is no newer keyframe: back would be no help";
  stage.Add(102, 104);
  EXPECT_EQ(stage.Take(103), 103) << "there is now";
  EXPECT_EQ(stage.flags, kKey | kGap);
  EXPECT_EQ(stage.place.skipped, 30U);
  stage.Add(104, 136);
  EXPECT_EQ(stage.Take(104), 104) << "not late: nothing is skipped";
  EXPECT_EQ(stage.flags, 0);
}

TEST(UnitHistory, ForgetsWhatIsOldAndTellsWhoNeedsIt) {
  Stage stage;
  stage.Add(1, 10);
  ASSERT_EQ(stage.Take(9), 7);
  for (std::uint32_t number = 8; number < 8 + UnitHistory::kMostUnits + 1; ++number) {
    auto unit = NumberedUnit(number);
    unit[4] = 0x41;  // no keyframe
    stage.history.Add(console::MakeUnit(unit, ArrivalOf(number), false));
  }
  EXPECT_EQ(stage.history.LastKeyframe(), nullptr);
  EXPECT_EQ(stage.Take(300), -1) << "his place is gone, and no keyframe to go on with";
  stage.Add(519, 521);
  EXPECT_EQ(stage.Take(520), 519);
  EXPECT_EQ(stage.flags, kKey | kGap);
  Stage large;
  large.Add(1, 1 + 200, 250'000);
  std::size_t held = 0;
  while (large.Take(200) != -1) {
    ++held;
  }
  EXPECT_LE(held * 250'000, UnitHistory::kMostBytes);
}

TEST(UnitHistory, KnowsAKeyframeBehindADelimiter) {
  const struct {
    std::vector<std::uint8_t> unit;
    bool is_keyframe;
  } rows[] = {
      {{0, 0, 0, 1, 0x67, 1}, true},
      {{0, 0, 0, 1, 0x65, 1}, false},
      {{0, 0, 0, 1, 0x09, 0xF0, 0, 0, 0, 1, 0x67, 1}, true},
      {{0, 0, 0, 1, 0x09, 0xF0, 0, 0, 1, 0x27, 1}, true},
      {{0, 0, 0, 1, 0x09, 0xF0, 0, 0, 0, 1, 0x41, 1}, false},
      {{0, 0, 0, 1, 0x09, 0xF0, 0, 0, 1}, false},
      {{0, 0, 0, 1, 0x09}, false},
      {{0, 0, 0, 1}, false},
      {{}, false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(console::MakeUnit(row.unit, 0, false).is_keyframe, row.is_keyframe)
        << row.unit.size() << " bytes";
  }
}

}  // namespace
}  // namespace kestrelbridge::test
