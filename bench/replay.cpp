// bench_replay: sends datagrams through the daemon's receive loop in a fixed order, one thread, no
// timer, so that callgrind counts the same instructions every time.
//
//   bench_replay video CLIP    the units of the clip, as the camera sends them
//   bench_replay pushes CLIP   datagrams with all status pushes
//
// Everything passes twice. The first pass clears the ring and learns the picture size; the second
// one is counted (callgrind must be started with --collect-atstart=no). Prints the number of
// datagrams of the second pass. Needs a /dev/shm and a /run of its own.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <array>
#include <cstdio>
#include <exception>
#include <string_view>
#include <vector>

#include "camera/camera_link.h"
#include "camera/packet_format.h"
#include "session/camera_session.h"
#include "tools/camera/camera_assignment.h"
#include "tools/camera/camera_pushes.h"
#include "tools/camera/clip.h"
#include "tools/common/tool_error.h"
#include "tools/wire/camera_wire.h"
#include "video/frame_buffers.h"

namespace {

using namespace kestrelbridge;
using namespace kestrelbridge::tools;
using Datagram = std::vector<std::uint8_t>;

constexpr std::size_t kPushDatagrams = 200;
constexpr std::size_t kBatch = 16;  // datagrams at a time, which any socket buffer holds

std::vector<Datagram> datagrams;
std::size_t batch_end = 0;  // sent, of both passes
std::size_t taken = 0;
int camera_socket = -1;

int OpenSocket(sockaddr_in& local) {
  const int socket = ::socket(AF_INET, SOCK_DGRAM, 0);
  local = {};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof local;
  auto* const address = reinterpret_cast<sockaddr*>(&local);
  if (socket == -1 || bind(socket, address, size) != 0 ||
      getsockname(socket, address, &size) != 0) {
    throw ToolError("cannot open a socket on the loopback");
  }
  return socket;
}

void SendBatch() {
  // A batch ends where a pass does.
  const std::size_t pass_end = datagrams.size() * (1 + taken / datagrams.size());
  for (std::size_t i = 0; i < kBatch && batch_end < pass_end; ++i, ++batch_end) {
    const Datagram& datagram = datagrams[batch_end % datagrams.size()];
    if (send(camera_socket, datagram.data(), datagram.size(), 0) < 0) {
      throw ToolError("the loopback did not take a datagram");
    }
  }
}

[[noreturn]] void Finish() {
  std::printf("%zu\n", datagrams.size());
  std::fflush(stdout);
  _exit(0);
}

// Callgrind collects while the daemon works on the second pass, and not while the bench sends.
void Collect(bool on) {
  static bool collecting = false;
  if (on != collecting) {
    CALLGRIND_TOGGLE_COLLECT;
    collecting = on;
  }
}

// The daemon's own callback, and then the next batch where this one is used up.
void TakeDatagram(std::span<const std::uint8_t> datagram, const char* sender_address,
                  std::uint16_t sender_port) {
  OnCameraDatagram(datagram, sender_address, sender_port);
  if (++taken != batch_end) {
    return;
  }
  Collect(false);
  if (taken == 2 * datagrams.size()) {
    Finish();
  }
  SendBatch();
  Collect(taken >= datagrams.size());
}

std::vector<Datagram> VideoDatagrams(const char* clip_path) {
  const auto clip = ReadClip(clip_path);
  std::vector<Datagram> result;
  for (const AccessUnit unit : CutClip(clip)) {
    for (std::size_t i = 0; i < UnitDatagramCount(unit.size(), kUsualDatagramSize); ++i) {
      std::array<std::uint8_t, kUsualDatagramSize> buffer{};
      const auto sequence = static_cast<std::uint16_t>(result.size());
      const auto datagram = BuildUnitDatagram(unit, i, sequence, buffer);
      result.emplace_back(datagram.begin(), datagram.end());
    }
  }
  return result;
}

std::vector<Datagram> PushDatagrams() {
  std::vector<Datagram> result;
  std::uint16_t frame_sequence = 0;
  for (std::size_t i = 0; i < kPushDatagrams; ++i) {
    std::array<std::uint8_t, kUsualDatagramSize> buffer{};
    const auto pushes = BuildPushes(StartModel({}), Histogram{}, frame_sequence);
    const auto datagram = BuildCommandData(pushes, static_cast<std::uint16_t>(i), buffer);
    result.emplace_back(datagram.begin(), datagram.end());
  }
  return result;
}

[[noreturn]] void Replay() {
  CameraLink& link = GetCameraLink();
  sockaddr_in camera{};
  sockaddr_in daemon{};
  camera_socket = OpenSocket(camera);
  link.endpoint.socket = OpenSocket(daemon);
  if (connect(camera_socket, reinterpret_cast<const sockaddr*>(&daemon), sizeof daemon) != 0) {
    throw ToolError("cannot connect on the loopback");
  }
  std::snprintf(link.host, sizeof link.host, "127.0.0.1");
  link.port = ntohs(camera.sin_port);
  link.endpoint.on_datagram = TakeDatagram;
  AttachBuffer(link.endpoint, link.receive_buffer);
  SendBatch();
  ReceiveLoop(link.endpoint);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc != 3 || InitFrameBuffers() != 0) {
      throw ToolError("usage: bench_replay video|pushes CLIP");
    }
    datagrams = std::string_view(argv[1]) == "video" ? VideoDatagrams(argv[2]) : PushDatagrams();
    Replay();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_replay: %s\n", error.what());
    return 1;
  }
}
