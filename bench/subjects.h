// The programs that are compared, started and connected to a camera's socket.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kestrelbridge/frame_block.h"
#include "load.h"
#include "measurements.h"
#include "program.h"
#include "tools/common/udp_socket.h"

namespace kestrelbridge::bench {

inline constexpr std::uint16_t kCameraPort = 9010;
inline constexpr std::uint16_t kTelemetryPort = 5000;  // where the daemon sends it by itself

// A program under test with its camera. One at a time: they share port and ring.
struct Subject {
  CameraSocket camera{kCameraPort};
  std::unique_ptr<Program> program;
  // Takes the telemetry, so that it is not sent to nobody.
  tools::UdpSocket main_application{{.address = Loopback(), .port = kTelemetryPort}};
};

std::unique_ptr<Subject> StartDaemon(const Setting& setting,
                                     const std::vector<std::string>& options = {});

// `job` as bench_floor takes it, "receive" or "acknowledge".
std::unique_ptr<Subject> StartFloor(const Setting& setting, const std::string& job);

// bench_floor as a bare echo, to a port of the loopback.
std::unique_ptr<Subject> StartEcho(const Setting& setting, std::uint16_t receiver_port);

// Counts the units that a subject publishes. Look often: its count has 16 bits.
class UnitCounter {
 public:
  // The subject must have been started.
  UnitCounter();

  // Units since this counter was made.
  std::uint64_t Look();

  // Number of the newest unit.
  [[nodiscard]] std::uint16_t Newest() const {
    return LoadShared16(ring_.data() + kLastSequenceOffset, __ATOMIC_ACQUIRE);
  }

 private:
  FrameBlockMapping ring_;
  std::uint16_t last_seen_ = 0;
  std::uint64_t count_ = 0;
};

}  // namespace kestrelbridge::bench
