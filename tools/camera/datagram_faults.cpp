#include "tools/camera/datagram_faults.h"

#include <utility>

namespace kestrelbridge::tools {
namespace {

// A double holds 53 of the 64 random bits.
constexpr unsigned kUnusedBits = 11;
constexpr double kPercentOfOne = 100.0 / 9007199254740992.0;  // 100 / 2^53

void SendCopies(std::span<const std::uint8_t> datagram, bool twice, const DatagramSink& send) {
  send(datagram);
  if (twice) {
    send(datagram);
  }
}

}  // namespace

DatagramFaults::DatagramFaults(const FaultRates& rates, std::uint64_t seed)
    : rates_(rates), random_(seed) {}

// The library's own distributions differ from one library to the next; a seed shall mean the same
// everywhere.
bool DatagramFaults::Happens(double percent) {
  return static_cast<double>(random_() >> kUnusedBits) * kPercentOfOne < percent;
}

DatagramFate DatagramFaults::Pass(std::span<std::uint8_t> datagram, const DatagramSink& send) {
  // Always five numbers for one datagram, so that one rate does not change what another one hits.
  DatagramFate fate;
  fate.lost = Happens(rates_.loss);
  fate.duplicated = Happens(rates_.duplicate) && !fate.lost;
  fate.reordered = Happens(rates_.reorder) && !fate.lost && waiting_.empty();
  fate.corrupted = Happens(rates_.corrupt) && !fate.lost;
  const std::uint64_t damage = random_();
  if (fate.corrupted) {
    fate.damaged_offset = static_cast<std::size_t>((damage & 0xFFFFFFFF) % datagram.size());
    datagram[fate.damaged_offset] ^= static_cast<std::uint8_t>(1 + (damage >> 32) % 255);
  }
  if (fate.reordered) {
    waiting_.assign(datagram.begin(), datagram.end());
    waiting_twice_ = fate.duplicated;
    return fate;
  }
  if (!fate.lost) {
    SendCopies(datagram, fate.duplicated, send);
  }
  Flush(send);
  return fate;
}

void DatagramFaults::Flush(const DatagramSink& send) {
  if (!waiting_.empty()) {
    SendCopies(std::exchange(waiting_, {}), waiting_twice_, send);
  }
}

}  // namespace kestrelbridge::tools
