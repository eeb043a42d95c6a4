// The millisecond clock of every time-out.
#pragma once

#include <cstdint>
#include <ctime>

namespace kestrelbridge {

// A time as milliseconds modulo 2^32: seconds x 1000 plus the whole milliseconds of the nanoseconds
// (scaled in double precision and truncated).
constexpr std::uint32_t MillisecondsOf(const std::timespec& time) {
  const auto from_seconds =
      static_cast<std::uint32_t>(static_cast<std::uint64_t>(time.tv_sec) * 1000U);
  return from_seconds + static_cast<std::uint32_t>(static_cast<double>(time.tv_nsec) * 1e-6);
}

// The wall clock in milliseconds; wraps after 49.7 days. Take intervals as unsigned 32-bit
// differences, for which the wrap is harmless. A step of the wall clock counts as elapsed time.
// Any thread.
std::uint32_t NowMs();

// A time as a record keeps it in which 0 stands for "never": 0 itself is taken a millisecond back.
// Not forward, or it would look 49.7 days old within its own millisecond.
constexpr std::uint32_t StampOf(std::uint32_t now_ms) { return now_ms != 0 ? now_ms : UINT32_MAX; }

}  // namespace kestrelbridge
