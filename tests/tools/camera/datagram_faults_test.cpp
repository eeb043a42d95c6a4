// The bad link between the simulated camera and the daemon.

#include "tools/camera/datagram_faults.h"

#include <gtest/gtest.h>

#include <vector>

namespace kestrelbridge::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

struct Passage {
  std::vector<int> arrived;  // numbers of the datagrams, in the order of arrival
  std::size_t bytes_damaged = 0;
};

// Sends numbered datagrams over the link: the number stands in every byte, so that it survives one
// wrong byte.
Passage Send(int datagrams, const tools::FaultRates& rates, std::uint64_t seed) {
  Passage passage;
  tools::DatagramFaults faults(rates, seed);
  const auto arrive = [&](std::span<const std::uint8_t> datagram) {
    const int number = datagram[0] == datagram[1] ? datagram[0] : datagram[2];
    for (const std::uint8_t byte : datagram) {
      passage.bytes_damaged += byte != number ? 1U : 0U;
    }
    passage.arrived.push_back(number);
  };
  for (int number = 0; number < datagrams; ++number) {
    Bytes datagram(8, static_cast<std::uint8_t>(number));
    const tools::DatagramFate fate = faults.Pass(datagram, arrive);
    EXPECT_FALSE(fate.lost && (fate.duplicated || fate.reordered || fate.corrupted));
  }
  faults.Flush(arrive);
  return passage;
}

TEST(DatagramFaults, ArrivalsFollowTheRates) {
  struct Row {
    const char* behaviour;
    tools::FaultRates rates;
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
    EXPECT_EQ(Send(5, row.rates, 1).arrived, row.arrived) << row.behaviour;
  }
  EXPECT_EQ(Send(100, {.duplicate = 100, .corrupt = 100}, 1).bytes_damaged, 200U)
      << "exactly one wrong byte in all copies";
}

}  // namespace
}  // namespace kestrelbridge::test
