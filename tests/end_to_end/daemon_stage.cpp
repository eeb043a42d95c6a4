#include "end_to_end/daemon_stage.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>

#include "camera/packet_format.h"
#include "tools/common/udp_table.h"

namespace kestrelbridge::test {
namespace {

// The numbers of the process's sockets.
std::set<std::string> SocketsOf(pid_t process) {
  std::set<std::string> sockets;
  std::error_code gone;  // the process may end while we look
  const auto folder = "/proc/" + std::to_string(process) + "/fd";
  for (const auto& entry : std::filesystem::directory_iterator(folder, gone)) {
    const std::string target = std::filesystem::read_symlink(entry.path(), gone).string();
    if (target.starts_with("socket:[")) {
      sockets.insert(target.substr(8, target.size() - 9));
    }
  }
  return sockets;
}

}  // namespace

void ForgetEarlierRuns() {
  for (const std::filesystem::path folder : {"/run/kestrelbridge", "/dev/shm"}) {
    std::filesystem::create_directory(folder);
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      std::filesystem::remove_all(entry.path());
    }
  }
}

std::vector<std::string> DaemonCommand(std::vector<std::string> options) {
  options.insert(options.begin(), ProgramPath("kestrelbridge"));
  return options;
}

std::vector<std::string> DaemonCommandFor(std::uint16_t camera_port) {
  return DaemonCommand({"--port", std::to_string(camera_port)});
}

std::vector<BoundPort> UdpPortsOf(pid_t process) {
  const std::set<std::string> sockets = SocketsOf(process);
  std::vector<BoundPort> ports;
  // Its own view: it may live in another network namespace than we.
  for (const auto& row : tools::ReadUdpTable("/proc/" + std::to_string(process) + "/net/udp")) {
    if (sockets.contains(std::to_string(row.socket))) {
      ports.push_back({.port = row.port, .queued_bytes = row.queued_bytes, .drops = row.drops});
    }
  }
  std::ranges::sort(ports, {}, &BoundPort::port);
  return ports;
}

bool WaitForBridge(pid_t process) {
  return Eventually([process] {
    return std::ranges::any_of(UdpPortsOf(process),
                               [](const BoundPort& port) { return port.port == kPhonePort; });
  });
}

bool WaitUntilRead(pid_t process) {
  return Eventually([process] {
    return std::ranges::all_of(UdpPortsOf(process),
                               [](const BoundPort& port) { return port.queued_bytes == 0; });
  });
}

ScriptedCamera::ScriptedCamera(std::uint16_t port)
    : socket_({.host = kCameraAddress, .port = port}) {}

bool ScriptedCamera::Connect() {
  const auto request = socket_.Receive();
  if (!request) {
    return false;
  }
  ++packets_received_;
  daemon_ = request->sender;
  talking_ = true;
  talker_ = std::thread([this] {
    const Bytes no_packet = {0};
    while (talking_) {
      socket_.Send(no_packet, daemon_);
      std::this_thread::sleep_for(std::chrono::milliseconds{50});
    }
  });
  return true;
}

Bytes ScriptedCamera::Receive(std::chrono::milliseconds patience) {
  auto received = socket_.Receive(patience);
  if (!received) {
    return {};
  }
  ++packets_received_;
  return std::move(received->bytes);
}

void ScriptedCamera::Send(std::span<const std::uint8_t> datagram) {
  socket_.Send(datagram, daemon_);
}

void ScriptedCamera::SendUnit(std::span<const std::uint8_t> unit) {
  for (const Bytes& datagram : UnitDatagrams(sequence_, unit)) {
    Send(datagram);
    ++sequence_;
  }
}

void ScriptedCamera::SendNextHeader() { Send(UnitHeaderDatagram(sequence_++, 1000, {})); }

void ScriptedCamera::FallSilent() {
  talking_ = false;
  if (talker_.joinable()) {
    talker_.join();
  }
}

bool CameraGetsCommand(ScriptedCamera& camera, std::uint8_t command_id,
                       std::optional<std::uint8_t> code) {
  return Eventually([&] {
    const Bytes packet = camera.Receive(std::chrono::milliseconds{100});
    return packet.size() > kSentWrapperSize + kFrameOverhead &&
           packet[kSentWrapperSize + kFrameCommandSetOffset] == 0x02 &&
           packet[kSentWrapperSize + kFrameCommandIdOffset] == command_id &&
           (!code || packet[kSentWrapperSize + kFramePayloadOffset] == code);
  });
}

RingWatcher::RingWatcher() {
  if (!Eventually([this] { return mapping_.Open(); })) {
    throw std::runtime_error("there is no frame block");
  }
  reader_.emplace(mapping_.data());
}

Bytes RingWatcher::Next(std::chrono::milliseconds patience) {
  Bytes unit;
  const auto take = [&] { return reader_->Next(unit); };
  return Eventually([&] { return take() || (reader_->Wait(patience) && take()); }, patience)
             ? unit
             : Bytes{};
}

bool RingWatcher::WaitFor(const Bytes& unit) {
  return Eventually([&] {
    Bytes found;
    while (reader_->Next(found)) {
      if (found == unit) {
        return true;
      }
    }
    return false;
  });
}

Bytes NewUnit(std::size_t size) {
  static std::uint32_t seed = 0;
  Bytes unit = MakeUnit(size, ++seed);
  std::ranges::copy(Bytes{0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x02, 0x80, 0xF6, 0x40}, unit.begin() + 4);
  return unit;
}

testing::AssertionResult Serves(DaemonRun& run, RingWatcher& ring) {
  const Bytes unit = NewUnit();
  run.camera.SendUnit(unit);
  run.camera.SendNextHeader();
  if (ring.WaitFor(unit) && run.daemon.IsRunning()) {
    return testing::AssertionSuccess();
  }
  return testing::AssertionFailure() << "the unit did not get through:\n" << run.daemon.Error();
}

void SendAppText(const PeerSocket& main_application, std::string_view text) {
  const auto telemetry = main_application.Receive();
  ASSERT_TRUE(telemetry) << "no telemetry";
  main_application.Send(Bytes(text.begin(), text.end()), telemetry->sender);
}

std::uint64_t Value(const ChildProcess& tool, const std::string& key) {
  const std::string output = tool.Output();
  const std::size_t line = output.rfind("\n" + key + ": ");
  if (line == std::string::npos) {
    ADD_FAILURE() << key << " is not in:\n" << output;
    return UINT64_MAX;
  }
  return std::stoull(output.substr(line + key.size() + 3));
}

std::vector<std::string> CameraTool(const std::string& clip_path, int units_per_second,
                                    const std::vector<std::string>& options, std::uint16_t port) {
  const std::string place = std::string(kCameraAddress) + ":" + std::to_string(port);
  std::vector<std::string> command = Kestrelctl({"camera", "--listen", place, "--clip", clip_path,
                                                 "--fps", std::to_string(units_per_second)});
  command.insert(command.end(), options.begin(), options.end());
  return command;
}

std::vector<std::string> VideoTool(const std::string& output_path) {
  return Kestrelctl({"video", "--output", output_path, "--force"});
}

bool WaitUntilWatching(const ChildProcess& video_tool) {
  const std::string maps = "/proc/" + std::to_string(video_tool.pid()) + "/maps";
  return Eventually([&] { return ReadFile(maps).find(kFrameBlockName) != std::string::npos; });
}

}  // namespace kestrelbridge::test
