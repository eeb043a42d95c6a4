// What the fuzz targets share: a stage on which nothing can leave the process, the input taken
// apart, and the end of a run that broke a promise.
//
// Each target is one file NAME_fuzz.cpp with the function below. It is linked with libFuzzer
// (scripts/fuzz), and with replay.cpp, which gives it its corpus in every test run.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "base/byte_order.h"

extern "C" {
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// For all targets the same: enters a sandbox (private network, /run and /dev/shm), silences the log
// and puts a camera at the end of the link. Ends the process when that is not possible.
int LLVMFuzzerInitialize(int* argc, char*** argv);
}

namespace kestrelbridge::test {

// Ends the run, as a finding, unless the promise holds.
void Require(bool holds, const char* promise);

// Takes values off the front of the input. One that has run out gives zeros, or fewer bytes.
class FuzzInput {
 public:
  FuzzInput(const std::uint8_t* data, std::size_t size) : rest_(data, size) {}

  bool empty() const { return rest_.empty(); }

  std::span<const std::uint8_t> Bytes(std::size_t count) {
    const auto taken = rest_.first(std::min(count, rest_.size()));
    rest_ = rest_.subspan(taken.size());
    return taken;
  }
  std::uint8_t Byte() { return static_cast<std::uint8_t>(Le32(1)); }
  std::uint16_t Le16() { return static_cast<std::uint16_t>(Le32(2)); }
  std::uint32_t Le32(std::size_t width = 4) {
    std::uint8_t bytes[4] = {};
    std::ranges::copy(Bytes(width), bytes);
    return LoadLe32(bytes, 0);
  }

 private:
  std::span<const std::uint8_t> rest_;
};

// A copy on the heap of exactly that size, so that AddressSanitizer sees a read beyond its end.
inline std::vector<std::uint8_t> ExactCopy(std::span<const std::uint8_t> bytes) {
  return {bytes.begin(), bytes.end()};
}

// Gives every command frame in the bytes its check sums. No chance mutation ever would.
void SealFrames(std::span<std::uint8_t> bytes);

// Takes what the daemon has sent to the camera since the last call: at most so many packets, each
// an acknowledgement or a whole command frame, rightly wrapped and sealed.
void RequireSoundPackets(std::size_t at_most);

}  // namespace kestrelbridge::test
