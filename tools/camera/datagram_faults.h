// A bad radio link: loses, repeats, reorders and damages datagrams, the same ones for the same
// seed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <random>
#include <span>
#include <vector>

namespace kestrelbridge::tools {

// Percent of the datagrams.
struct FaultRates {
  double loss = 0;
  double duplicate = 0;
  double reorder = 0;
  double corrupt = 0;
};

// What happens to one datagram. A lost one has no other fault.
struct DatagramFate {
  bool lost = false;
  bool duplicated = false;  // sent twice in a row
  bool reordered = false;   // sent after the datagram that follows it
  bool corrupted = false;   // the byte at damaged_offset is wrong
  std::size_t damaged_offset = 0;
};

using DatagramSink = std::function<void(std::span<const std::uint8_t>)>;

class DatagramFaults {
 public:
  DatagramFaults(const FaultRates& rates, std::uint64_t seed);

  // Passes one datagram, not empty, over the link: damages it in place and sends what arrives at
  // this moment. A reordered datagram waits for the next one to pass (even if that one is lost, and
  // also when it belongs to the next unit); the next one is never reordered itself.
  DatagramFate Pass(std::span<std::uint8_t> datagram, const DatagramSink& send);

  // Sends the datagram that still waits, if there is one.
  void Flush(const DatagramSink& send);

  // Forgets the datagram that still waits: its receiver is gone.
  void Discard() { waiting_.clear(); }

 private:
  bool Happens(double percent);

  FaultRates rates_;
  std::mt19937_64 random_;
  std::vector<std::uint8_t> waiting_;  // empty: none waits
  bool waiting_twice_ = false;
};

}  // namespace kestrelbridge::tools
