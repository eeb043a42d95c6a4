#include "stream.h"

#include <array>
#include <chrono>
#include <utility>

#include "base/byte_order.h"
#include "camera/packet_format.h"
#include "program.h"
#include "tools/camera/clip.h"
#include "tools/common/tool_error.h"
#include "tools/common/udp_socket.h"
#include "tools/wire/camera_wire.h"

namespace kestrelbridge::bench {
namespace {

// RTP header (RFC 3550), big-endian: byte 1 marker bit and payload type, 2-3 sequence, 4-7
// timestamp. The payloader sets the marker on a unit's last packet.
constexpr std::size_t kRtpHeaderSize = 12;
constexpr std::uint8_t kRtpMarker = 0x80;
constexpr std::uint32_t kRtpClockHz = 90'000;
constexpr std::uint32_t kTicksPerUnit = kRtpClockHz / 30;

constexpr std::uint16_t kRecorderPort = 9030;

std::uint32_t LoadBe(std::span<const std::uint8_t> bytes) {
  std::uint32_t value = 0;
  for (const std::uint8_t byte : bytes) {
    value = value << 8 | byte;
  }
  return value;
}

void StoreBe(std::span<std::uint8_t> bytes, std::uint32_t value) {
  for (std::size_t i = bytes.size(); i-- > 0; value >>= 8) {
    bytes[i] = static_cast<std::uint8_t>(value);
  }
}

// The spans are made once all bytes are there: a growing vector moves.
void SetDatagrams(DatagramStream& stream, std::span<const std::size_t> lengths) {
  std::size_t begin = 0;
  for (const std::size_t length : lengths) {
    stream.datagrams.push_back(std::span(stream.bytes).subspan(begin, length));
    begin += length;
  }
}

void CheckUnitCount(const DatagramStream& recorded, std::size_t expected) {
  if (recorded.units.size() != expected) {
    throw tools::ToolError("GStreamer's payloader sent " + std::to_string(recorded.units.size()) +
                           " units, the clip has " + std::to_string(expected));
  }
}

}  // namespace

DatagramStream MakeCameraStream(const std::string& clip_path) {
  const std::vector<std::uint8_t> clip = tools::ReadClip(clip_path);
  DatagramStream stream;
  std::vector<std::size_t> lengths;
  std::uint16_t sequence = 0;
  for (const tools::AccessUnit unit : tools::CutClip(clip)) {
    const std::size_t count = tools::UnitDatagramCount(unit.size(), tools::kUsualDatagramSize);
    stream.units.push_back(
        {.first_datagram = lengths.size(), .datagram_count = count, .length = unit.size()});
    stream.video_length += unit.size();
    for (std::size_t position = 0; position < count; ++position) {
      std::array<std::uint8_t, tools::kUsualDatagramSize> buffer{};
      const auto datagram = tools::BuildUnitDatagram(unit, position, sequence++, buffer);
      stream.bytes.insert(stream.bytes.end(), datagram.begin(), datagram.end());
      lengths.push_back(datagram.size());
    }
  }
  SetDatagrams(stream, lengths);
  return stream;
}

void RenumberCameraStream(DatagramStream& stream) {
  for (const auto datagram : stream.datagrams) {
    const std::size_t next = LoadLe16(datagram, kWrapperSequenceOffset) + stream.datagrams.size();
    StoreLe16(datagram, kWrapperSequenceOffset, static_cast<std::uint16_t>(next));
  }
}

DatagramStream RecordRtpStream(const std::string& clip_path) {
  const std::vector<std::uint8_t> clip = tools::ReadClip(clip_path);
  const std::vector<tools::AccessUnit> units = tools::CutClip(clip);
  const tools::UdpSocket recorder({.address = Loopback(), .port = kRecorderPort});
  Program payloader(
      {.command = {"gst-launch-1.0", "-q", "filesrc", "location=" + clip_path, "!", "h264parse",
                   "!", "rtph264pay", "config-interval=-1", "pt=96",
                   "mtu=" + std::to_string(tools::kUsualDatagramSize), "!", "udpsink",
                   "host=127.0.0.1", "port=" + std::to_string(kRecorderPort), "sync=false"}});
  DatagramStream stream;
  std::vector<std::size_t> lengths;
  std::vector<std::uint8_t> buffer(tools::kMaxDatagramSize);
  std::size_t unit_begin = 0;
  // Ends with the last unit, or when nothing comes any more.
  while (stream.units.size() < units.size() && recorder.WaitForDatagram(std::chrono::seconds{10})) {
    std::span<const std::uint8_t> datagram;
    UdpPeer from;
    if (!recorder.Receive(buffer, datagram, from) || datagram.size() < kRtpHeaderSize) {
      continue;
    }
    stream.bytes.insert(stream.bytes.end(), datagram.begin(), datagram.end());
    lengths.push_back(datagram.size());
    if ((datagram[1] & kRtpMarker) != 0) {
      stream.units.push_back({.first_datagram = unit_begin,
                              .datagram_count = lengths.size() - unit_begin,
                              .length = units[stream.units.size()].size()});
      stream.video_length += stream.units.back().length;
      unit_begin = lengths.size();
    }
  }
  CheckUnitCount(stream, units.size());
  SetDatagrams(stream, lengths);
  // Units at an even distance in time, whatever the clip said about it.
  for (std::size_t number = 0; number < stream.units.size(); ++number) {
    for (const auto datagram : stream.DatagramsOf(stream.units[number])) {
      StoreBe(datagram.subspan(4, 4), static_cast<std::uint32_t>(number) * kTicksPerUnit);
    }
  }
  return stream;
}

void RenumberRtpStream(DatagramStream& stream) {
  const auto units = static_cast<std::uint32_t>(stream.units.size());
  const auto datagrams = static_cast<std::uint32_t>(stream.datagrams.size());
  for (const auto datagram : stream.datagrams) {
    const auto sequence = datagram.subspan(2, 2);
    const auto timestamp = datagram.subspan(4, 4);
    StoreBe(sequence, LoadBe(sequence) + datagrams);
    StoreBe(timestamp, LoadBe(timestamp) + units * kTicksPerUnit);
  }
}

}  // namespace kestrelbridge::bench
