// What every end-to-end test needs: the real daemon, a scripted camera, and the ring's reader.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "kestrelbridge/frame_block.h"
#include "support/camera_datagrams.h"
#include "support/child_process.h"
#include "support/peer_socket.h"
#include "support/sandbox.h"
#include "support/temporary_folder.h"

namespace kestrelbridge::test {

inline constexpr std::uint16_t kCameraPort = 9004;
// A camera on the daemon's own host leaves port 9004 to the daemon only when it listens elsewhere.
inline constexpr std::uint16_t kOtherCameraPort = 9104;

// Where the daemon waits for the phone app.
inline constexpr std::uint16_t kPhonePort = 9004;

// Empties /run/kestrelbridge and /dev/shm. For tests to which it matters what an earlier daemon
// left there, as when all tests run in one program.
void ForgetEarlierRuns();

// The command that starts the daemon.
std::vector<std::string> DaemonCommand(std::vector<std::string> options = {});
// The same, with its camera on another port.
std::vector<std::string> DaemonCommandFor(std::uint16_t camera_port);

// One of the daemon's sockets, as the kernel tells it.
struct BoundPort {
  std::uint16_t port = 0;
  std::uint64_t queued_bytes = 0;  // received, not yet read
  std::uint64_t drops = 0;         // datagrams that did not fit into the socket's buffer
};
// All UDP ports of the process, in the order of their numbers.
std::vector<BoundPort> UdpPortsOf(pid_t process);

// Waits until the process has opened the phone app's port: its start is complete, the redirect rule
// has been asked for.
bool WaitForBridge(pid_t process);

// Waits until the process has read everything that was sent to it.
bool WaitUntilRead(pid_t process);

// A camera whose every datagram is the test's choice. Once connected it keeps the link up by
// itself, with datagrams too short to mean anything, until it falls silent.
class ScriptedCamera {
 public:
  explicit ScriptedCamera(std::uint16_t port = kCameraPort);
  ScriptedCamera(const ScriptedCamera&) = delete;
  ScriptedCamera& operator=(const ScriptedCamera&) = delete;
  ~ScriptedCamera() { FallSilent(); }

  // Waits for the daemon's first packet and answers; false when none came.
  bool Connect();

  // The daemon's next packet, or empty.
  Bytes Receive(std::chrono::milliseconds patience = Patience());

  void Send(std::span<const std::uint8_t> datagram);
  void SendUnit(std::span<const std::uint8_t> unit);
  // Opens a unit that never ends: the daemon publishes a unit when it sees the next one's header.
  void SendNextHeader();
  void FallSilent();

  const UdpAddress& daemon() const { return daemon_; }
  int packets_received() const { return packets_received_; }

 private:
  PeerSocket socket_;
  UdpAddress daemon_;
  std::uint16_t sequence_ = 0;
  int packets_received_ = 0;
  std::atomic<bool> talking_{false};
  std::thread talker_;
};

// True once the camera gets a command frame of set 2 with that id and that first byte of its
// payload.
bool CameraGetsCommand(ScriptedCamera& camera, std::uint8_t command_id,
                       std::optional<std::uint8_t> code = std::nullopt);

// The main application's side of the ring.
class RingWatcher {
 public:
  // From now on; the daemon must have set up its frame memory.
  RingWatcher();

  // The next unit, or empty when none came in time.
  Bytes Next(std::chrono::milliseconds patience = Patience());
  // Passes over other units until this one comes.
  bool WaitFor(const Bytes& unit);

 private:
  FrameBlockMapping mapping_;
  std::optional<FrameBlockReader> reader_;
};

// One run of the daemon, with its camera. A supervisor would start the next one.
struct DaemonRun {
  explicit DaemonRun(const std::vector<std::string>& command = DaemonCommandFor(kOtherCameraPort),
                     std::uint16_t camera_port = kOtherCameraPort)
      : camera(camera_port), daemon(command) {}
  ScriptedCamera camera;
  ChildProcess daemon;
};

// A unit like no other. Opens with a parameter set, 640x480, so that the picture size is written.
Bytes NewUnit(std::size_t size = 3000);

// Whether a new unit gets from the run's camera, which is connected, into the ring.
testing::AssertionResult Serves(DaemonRun& run, RingWatcher& ring);

// Sends a text as the main application does: to where telemetry comes from.
void SendAppText(const PeerSocket& main_application, std::string_view text);

inline constexpr char kTestPattern[] =
    KESTRELBRIDGE_SOURCE_DIR "/tools/clips/test-pattern-720p30.h264";

// The value of a "key: number" line at the end of a tool's output. Fails the test when it is not
// there.
std::uint64_t Value(const ChildProcess& tool, const std::string& key);

// The programs, with the options that every test gives them.
std::vector<std::string> CameraTool(const std::string& clip_path, int units_per_second,
                                    const std::vector<std::string>& options = {},
                                    std::uint16_t port = kOtherCameraPort);
std::vector<std::string> VideoTool(const std::string& output_path);

// Waits until the process has mapped the frame block, and so misses no unit.
bool WaitUntilWatching(const ChildProcess& video_tool);

}  // namespace kestrelbridge::test
