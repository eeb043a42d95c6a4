// What the simulated phone makes of the camera's datagrams.
#include "tools/phone_stream.h"

#include <gtest/gtest.h>

#include <ostream>
#include <vector>

#include "support/camera_datagrams.h"

namespace kestrelbridge {
namespace {

struct SequenceRow {
  const char* name;
  std::vector<std::uint16_t> sequences;
  std::uint64_t gaps;
  std::uint64_t reordered;
};
std::ostream& operator<<(std::ostream& out, const SequenceRow& row) { return out << row.name; }

class PhoneSequence : public testing::TestWithParam<SequenceRow> {};

TEST_P(PhoneSequence, CountsWhatIsMissingAndWhatComesLate) {
  PhoneStream stream;
  for (const std::uint16_t sequence : GetParam().sequences) {
    stream.Take(CommandDataDatagram(sequence, Bytes{1, 2, 3}));
    EXPECT_EQ(stream.Sequence(), sequence);
  }
  EXPECT_EQ(stream.Counters().gaps, GetParam().gaps);
  EXPECT_EQ(stream.Counters().reordered, GetParam().reordered);
  EXPECT_EQ(stream.Counters().command_data, GetParam().sequences.size());
}

INSTANTIATE_TEST_SUITE_P(PhoneStream, PhoneSequence,
                         testing::Values(SequenceRow{"AnyFirst", {40'000}, 0, 0},
                                         SequenceRow{"InOrder", {7, 8, 9}, 0, 0},
                                         SequenceRow{"OverTheEnd", {65'534, 65'535, 0, 1}, 0, 0},
                                         SequenceRow{"TwoMissing", {7, 10, 11}, 2, 0},
                                         SequenceRow{"MissingAtTheEnd", {65'535, 2, 3}, 2, 0},
                                         SequenceRow{"Swapped", {7, 9, 8, 10}, 1, 1},
                                         SequenceRow{"SwappedAtTheEnd", {65'535, 1, 0, 2}, 1, 1},
                                         SequenceRow{"Twice", {7, 7, 8}, 0, 1}),
                         [](const auto& row) { return row.param.name; });

struct UnitRow {
  const char* name;
  std::vector<int> lost;  // positions in a unit of four datagrams that another unit follows
  std::uint64_t units;
  std::uint64_t broken;
};
std::ostream& operator<<(std::ostream& out, const UnitRow& row) { return out << row.name; }

class PhoneUnits : public testing::TestWithParam<UnitRow> {};

TEST_P(PhoneUnits, AreWholeOnlyWithAllTheirDatagrams) {
  const Bytes first = MakeUnit(5000, 1);
  const Bytes second = MakeUnit(300, 2);
  std::vector<Bytes> datagrams = UnitDatagrams(10, first);
  ASSERT_EQ(datagrams.size(), 4U);
  for (const Bytes& datagram : UnitDatagrams(14, second)) {
    datagrams.push_back(datagram);
  }
  for (const int position : GetParam().lost) {
    datagrams[static_cast<std::size_t>(position)].clear();
  }
  PhoneStream stream;
  std::vector<Bytes> units;
  for (const Bytes& datagram : datagrams) {
    if (datagram.empty()) {
      continue;
    }
    if (const auto unit = stream.Take(datagram); !unit.empty()) {
      units.emplace_back(unit.begin(), unit.end());
    }
  }
  EXPECT_EQ(stream.Counters().units, GetParam().units);
  EXPECT_EQ(stream.Counters().broken_units, GetParam().broken);
  ASSERT_EQ(units.size(), GetParam().units);
  EXPECT_EQ(units.back(), second);
  EXPECT_EQ(units.front(), units.size() == 2 ? first : second);
}

INSTANTIATE_TEST_SUITE_P(PhoneStream, PhoneUnits,
                         testing::Values(UnitRow{"NothingLost", {}, 2, 0},
                                         UnitRow{"HeaderLost", {0}, 1, 0},
                                         UnitRow{"MiddleLost", {2}, 1, 1},
                                         UnitRow{"EndLost", {3}, 1, 1},
                                         UnitRow{"AllLost", {0, 1, 2, 3}, 1, 0}),
                         [](const auto& row) { return row.param.name; });

TEST(PhoneStream, AUnitLongerThanAnnouncedIsBroken) {
  PhoneStream stream;
  stream.Take(UnitHeaderDatagram(1, 100, Bytes(60)));
  EXPECT_TRUE(stream.Take(ContinuationDatagram(2, Bytes(41))).empty());
  EXPECT_EQ(stream.Counters().broken_units, 1U);
  EXPECT_TRUE(stream.Take(UnitHeaderDatagram(3, 0, {})).empty());
  EXPECT_EQ(stream.Take(UnitHeaderDatagram(4, 1, Bytes(1))).size(), 1U);
}

TEST(PhoneStream, DamagedDatagramsAreBadAndNothingElse) {
  const Bytes good = CommandDataDatagram(1, Bytes{1, 2, 3});
  std::vector<Bytes> bad(6, good);
  bad[0].pop_back();    // cut
  bad[1].push_back(0);  // longer than it says
  bad[2][6] ^= 0x03;    // another kind: the check is wrong
  bad[3][7] ^= 0x80;    // wrong check
  bad[4].resize(19);    // shorter than its wrapper
  bad[5] = {};          // empty
  PhoneStream stream;
  for (const Bytes& datagram : bad) {
    EXPECT_TRUE(stream.Take(datagram).empty());
  }
  EXPECT_EQ(stream.Counters().bad_datagrams, bad.size());
  EXPECT_EQ(stream.Counters().datagrams, bad.size());
  EXPECT_EQ(stream.Counters().command_data + stream.Counters().video, 0U);
  stream.Take(CameraDatagram(3, 9, Bytes{1}));
  EXPECT_EQ(stream.Counters().other_kinds, 1U);
}

}  // namespace
}  // namespace kestrelbridge
