// A camera without a camera: waits for a connection request, then streams a clip to whoever sent
// it, pushes its state, and checks and obeys what comes back.
//
//             connection request                 unit after unit, at --fps
//   waiting ----------------------> streaming ---------------------------> clip ended
//                                     ^   |  a request from another address    |
//                                     |   +---+ or port: from the clip's       |
//                                     +-------+ beginning, to the new peer <---+
//
// Command data flows in both of the last states: the daemon's watchdog lives on it. Once silent,
// the camera sends nothing in any state, and still receives.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "net/udp_endpoint.h"
#include "tools/camera/annexb.h"
#include "tools/camera/bad_packet_log.h"
#include "tools/camera/camera_journal.h"
#include "tools/camera/camera_model.h"
#include "tools/camera/camera_pushes.h"
#include "tools/camera/datagram_faults.h"
#include "tools/camera/stream_forecast.h"
#include "tools/common/udp_socket.h"
#include "tools/common/unit_schedule.h"
#include "tools/wire/camera_wire.h"
#include "tools/wire/packet_check.h"

namespace kestrelbridge::tools {

struct CameraOptions {
  double units_per_second = 30;
  bool loop = false;
  std::size_t datagram_size = kUsualDatagramSize;  // wrapper included
  std::optional<std::chrono::duration<double>> silence_after;
  FaultRates faults;  // of the video datagrams
  CameraModel start;  // its state at first, and after a reset
  std::uint64_t seed = 1;
};

struct CameraCounters {
  // Sent. A lost datagram counts as lost only; a duplicated one counts twice as sent.
  std::uint64_t units_sent = 0;  // units whose turn has come, lost datagrams or not
  std::uint64_t datagrams_sent = 0;
  std::uint64_t bytes_sent = 0;         // of these datagrams
  std::uint64_t command_data_sent = 0;  // of these datagrams
  std::uint64_t datagrams_lost = 0;     // faults, by the fates that they drew
  std::uint64_t datagrams_duplicated = 0;
  std::uint64_t datagrams_reordered = 0;
  std::uint64_t datagrams_corrupted = 0;
  std::uint64_t send_failures = 0;   // datagrams that the system did not take
  std::uint64_t schedule_slips = 0;  // times that the schedule was more than a second behind

  // Received.
  std::uint64_t connection_requests = 0;
  std::uint64_t keepalives = 0;
  std::uint64_t acknowledged = 0;
  std::uint64_t commands = 0;
  std::uint64_t bad_packets = 0;
  std::uint64_t foreign_packets = 0;  // right, but from others than the present peer
};

class SimulatedCamera {
 public:
  // The units, the socket and the journal must outlive the camera.
  SimulatedCamera(const CameraOptions& options, std::span<const AccessUnit> units,
                  const UdpSocket& socket, CameraJournal& journal);

  // Takes the packets that have arrived.
  void Receive(SteadyTime now);

  // Sends what is due.
  void Send(SteadyTime now);

  // When there is something to send again; the end of time when there is not.
  [[nodiscard]] SteadyTime NextSend() const;

  // When the last unit of a clip that does not loop was sent.
  [[nodiscard]] std::optional<SteadyTime> ClipEnd() const { return clip_end_; }

  [[nodiscard]] const CameraCounters& Counters() const { return counters_; }
  [[nodiscard]] const ForecastCounters& Forecast() const { return forecast_.Counters(); }
  [[nodiscard]] const BadPacketLog& BadPackets() const { return bad_packets_; }

 private:
  void TakePacket(std::span<const std::uint8_t> packet, UdpPeer from, SteadyTime now);
  void TakeFrame(const CheckedPacket& checked, std::span<const std::uint8_t> packet,
                 SteadyTime now);
  void Obey(std::span<const std::uint8_t> frame, SteadyTime now);
  void NoteBadPacket(const char* fault, std::span<const std::uint8_t> packet);
  void Connect(UdpPeer peer, SteadyTime now);

  [[nodiscard]] bool IsSilent(SteadyTime now) const;
  void SendCommandData(SteadyTime now);
  void SendDueUnits(SteadyTime now);
  void SendUnit(SteadyTime now);
  void SendVideoDatagram(std::span<std::uint8_t> datagram);
  void SendDatagram(std::span<const std::uint8_t> datagram);

  CameraOptions options_;
  std::span<const AccessUnit> units_;
  const UdpSocket& socket_;
  CameraJournal& journal_;

  std::optional<UdpPeer> peer_;
  std::optional<SteadyTime> streaming_since_;  // since the first peer came
  std::optional<SteadyTime> clip_end_;
  std::size_t clip_unit_ = 0;  // the next unit
  UnitSchedule schedule_;
  SteadyTime burst_pause_end_;
  SteadyTime next_command_data_;

  CameraModel model_;
  AccessUnit last_unit_;  // the histogram's

  std::uint16_t datagram_sequence_ = 0;
  std::uint16_t push_sequence_ = 0;
  // Of the latest frame of each type.
  std::optional<std::uint16_t> last_keepalive_sequence_;
  std::optional<std::uint16_t> last_command_sequence_;

  DatagramFaults faults_;
  std::vector<DatagramFate> fates_;    // of the unit that is being sent
  std::vector<std::uint8_t> buffer_;   // one outgoing datagram
  std::vector<std::uint8_t> receive_;  // one incoming packet
  CameraCounters counters_;
  StreamForecast forecast_;
  BadPacketLog bad_packets_;
};

}  // namespace kestrelbridge::tools
