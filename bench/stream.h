// What the benchmarks send: the access units of a clip as datagrams that are built beforehand, so
// that sending them costs the machine under test as little as possible.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace kestrelbridge::bench {

// One pass over a clip.
struct DatagramStream {
  struct Unit {
    std::size_t first_datagram = 0;
    std::size_t datagram_count = 0;
    std::size_t length = 0;  // H.264 bytes
  };
  using Datagram = std::span<std::uint8_t>;

  std::vector<std::uint8_t> bytes;  // one datagram after the other
  std::vector<Datagram> datagrams;  // into bytes
  std::vector<Unit> units;
  std::size_t video_length = 0;  // H.264 bytes of all units

  [[nodiscard]] std::span<const Datagram> DatagramsOf(const Unit& unit) const {
    return std::span(datagrams).subspan(unit.first_datagram, unit.datagram_count);
  }
};

// The clip as the camera sends it. Throws ToolError.
DatagramStream MakeCameraStream(const std::string& clip_path);

// Numbers the datagrams for the next pass, so that the sequence goes on.
void RenumberCameraStream(DatagramStream& stream);

// The same clip as RTP, payload by GStreamer's own payloader, which is run for it. Throws
// ToolError.
DatagramStream RecordRtpStream(const std::string& clip_path);

// As above, with the RTP timestamp.
void RenumberRtpStream(DatagramStream& stream);

}  // namespace kestrelbridge::bench
