// What the phone sees of the camera's stream: judges every datagram and puts the units together.
// Pure: no socket, no clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace kestrelbridge::tools {

struct StreamCounters {
  std::uint64_t datagrams = 0;  // all of them
  std::uint64_t bytes = 0;
  std::uint64_t command_data = 0;  // by their kind
  std::uint64_t video = 0;
  std::uint64_t other_kinds = 0;
  std::uint64_t bad_datagrams = 0;  // wrapper cut short, or with a wrong length or check
  // By the camera's sequence, which counts up by one a datagram. One that comes late counts twice:
  // it was missing first and is reordered then. One that comes again is reordered, too.
  std::uint64_t gaps = 0;  // datagrams that were missing where they belong
  std::uint64_t reordered = 0;
  std::uint64_t units = 0;  // whole ones
  std::uint64_t broken_units = 0;
};

class PhoneStream {
 public:
  // Takes one datagram. Returns the unit that it completes, or nothing; the unit's bytes are valid
  // until the next call.
  std::span<const std::uint8_t> Take(std::span<const std::uint8_t> datagram);

  // Sequence of the latest datagram, 0 before the first: what the app's packets echo.
  [[nodiscard]] std::uint16_t Sequence() const { return sequence_.value_or(0); }

  [[nodiscard]] const StreamCounters& Counters() const { return counters_; }

 private:
  void NoteSequence(std::uint16_t sequence);
  std::span<const std::uint8_t> TakeVideo(std::span<const std::uint8_t> datagram);

  std::optional<std::uint16_t> sequence_;
  std::optional<std::uint16_t> next_sequence_;
  std::vector<std::uint8_t> unit_;    // gathered so far
  std::size_t announced_length_ = 0;  // 0 while no unit is in progress
  StreamCounters counters_;
};

}  // namespace kestrelbridge::tools
