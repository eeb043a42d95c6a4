#include "tools/datagram_faults.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <numeric>
#include <vector>

namespace kestrelbridge {
namespace {

using Bytes = std::vector<std::uint8_t>;

struct Passage {
  std::vector<DatagramFate> fates;
  std::vector<int> arrived;  // numbers of the datagrams, in the order of arrival
  std::size_t bytes_damaged = 0;
};

// Sends numbered datagrams over the link: the number stands in every byte, so that it survives one
// wrong byte.
Passage Send(int datagrams, const FaultRates& rates, std::uint64_t seed) {
  Passage passage;
  DatagramFaults faults(rates, seed);
  const auto arrive = [&](std::span<const std::uint8_t> datagram) {
    const int number = datagram[0] == datagram[1] ? datagram[0] : datagram[2];
    for (const std::uint8_t byte : datagram) {
      passage.bytes_damaged += byte != number ? 1U : 0U;
    }
    passage.arrived.push_back(number);
  };
  for (int number = 0; number < datagrams; ++number) {
    Bytes datagram(8, static_cast<std::uint8_t>(number));
    passage.fates.push_back(faults.Pass(datagram, arrive));
  }
  faults.Flush(arrive);
  return passage;
}

TEST(DatagramFaults, ArrivalsFollowTheRates) {
  struct Row {
    const char* behaviour;
    FaultRates rates;
    std::vector<int> arrived;
  };
  const Row rows[] = {
      {"a good link", {}, {0, 1, 2, 3, 4}},
      {"all lost, and a lost one has no other fault",
       {.loss = 100, .duplicate = 100, .reorder = 100, .corrupt = 100},
       {}},
      {"all twice", {.duplicate = 100}, {0, 0, 1, 1, 2, 2, 3, 3, 4, 4}},
      {"each pair swapped, the last one with nothing after it", {.reorder = 100}, {1, 0, 3, 2, 4}},
      {"late and twice", {.duplicate = 100, .reorder = 100}, {1, 1, 0, 0, 3, 3, 2, 2, 4, 4}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.behaviour);
    EXPECT_EQ(Send(5, row.rates, 1).arrived, row.arrived);
  }
}

TEST(DatagramFaults, CorruptedDatagramHasExactlyOneWrongByteInAllItsCopies) {
  EXPECT_EQ(Send(100, {.corrupt = 100}, 1).bytes_damaged, 100U);
  EXPECT_EQ(Send(100, {.duplicate = 100, .corrupt = 100}, 1).bytes_damaged, 200U);
}

TEST(DatagramFaults, SameSeedSameFaultsAndAnotherSeedOthers) {
  const FaultRates rates = {.loss = 30, .duplicate = 30, .reorder = 30, .corrupt = 0};
  EXPECT_EQ(Send(100, rates, 7).arrived, Send(100, rates, 7).arrived);
  EXPECT_NE(Send(100, rates, 7).arrived, Send(100, rates, 8).arrived);
}

TEST(DatagramFaults, ARateHitsItsShareAndDoesNotMoveTheOthers) {
  const auto lost = [](const Passage& passage) {
    std::vector<bool> flags;
    for (const DatagramFate& fate : passage.fates) {
      flags.push_back(fate.lost);
    }
    return flags;
  };
  const auto plain = lost(Send(250, {.loss = 20}, 3));
  EXPECT_EQ(plain, lost(Send(250, {.loss = 20, .duplicate = 50, .corrupt = 50}, 3)));
  const int count = std::accumulate(plain.begin(), plain.end(), 0);
  EXPECT_GT(count, 25);
  EXPECT_LT(count, 75);
}

}  // namespace
}  // namespace kestrelbridge
