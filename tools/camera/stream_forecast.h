// What a receiver of the camera's datagrams has to make of them, told from what was really sent:
// damaged, doubled and late ones as they went out. Whoever counts something else has lost
// something. Pure: no socket, no clock.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace kestrelbridge::tools {

struct ForecastCounters {
  std::uint64_t video_datagrams = 0;
  std::uint64_t command_data_datagrams = 0;
  std::uint64_t other_datagrams = 0;
  std::uint64_t stray_datagrams = 0;  // of video, but of no unit
  // A unit counts when the next one's header has been sent; its length is its only test.
  std::uint64_t whole_units = 0;
  std::uint64_t whole_bytes = 0;
  std::uint64_t broken_units = 0;
  std::uint64_t odd_units = 0;  // whole, but opened by no start code
};

class StreamForecast {
 public:
  // Takes one datagram, in the order of sending.
  void Take(std::span<const std::uint8_t> datagram);

  [[nodiscard]] const ForecastCounters& Counters() const { return counters_; }

 private:
  void TakeVideo(std::span<const std::uint8_t> datagram);
  void Append(std::span<const std::uint8_t> unit_bytes);
  void FinishUnit();

  std::array<std::uint8_t, 5> opening_{};  // of the unit in progress: start code and NAL header
  std::size_t length_ = 0;                 // of the unit in progress
  std::size_t announced_length_ = 0;       // by its header; 0: no unit is in progress
  ForecastCounters counters_;
};

}  // namespace kestrelbridge::tools
