#include "fuzz/fuzz_stage.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>

#include "camera/camera_link.h"
#include "camera/crc.h"
#include "camera/packet_format.h"
#include "support/sandbox.h"
#include "tools/wire/packet_check.h"

namespace kestrelbridge::test {
namespace {

constexpr std::uint16_t kCameraPort = 9004;
constexpr std::size_t kSmallestSealedFrame = kFrameCrc8Offset + 1 + kFrameCrc16Size;

int camera_socket = -1;

bool PlaceCamera() {
  CameraLink& link = GetCameraLink();
  std::snprintf(link.host, sizeof link.host, "%s", kCameraAddress);
  link.endpoint.socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  link.port = kCameraPort;
  camera_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(kCameraPort);
  address.sin_addr.s_addr = inet_addr(kCameraAddress);
  return bind(camera_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace

void Require(bool holds, const char* promise) {
  if (!holds) {
    dprintf(STDERR_FILENO, "A promise is broken: %s\n", promise);
    std::abort();
  }
}

void SealFrames(std::span<std::uint8_t> bytes) {
  while (bytes.size() >= kSmallestSealedFrame) {
    const std::size_t length = bytes[kFrameLengthOffset];
    if (bytes[0] != kFrameStart || length < kSmallestSealedFrame || length > bytes.size()) {
      bytes = bytes.subspan(1);
      continue;
    }
    const auto frame = bytes.first(length);
    frame[kFrameCrc8Offset] = FrameCrc8(frame.first(kFrameCrc8Offset));
    const std::size_t covered = length - kFrameCrc16Size;
    StoreLe16(frame, covered, FrameCrc16(frame.first(covered)));
    bytes = bytes.subspan(length);
  }
}

void RequireSoundPackets(std::size_t at_most) {
  std::array<std::uint8_t, kCommandPacketSize> packet;
  for (std::size_t count = 0;; ++count) {
    const ssize_t length = recv(camera_socket, packet.data(), packet.size(), MSG_DONTWAIT);
    if (length < 0) {
      return;
    }
    Require(count < at_most, "the camera gets no more packets than were asked for");
    const auto sent = std::span(packet).first(static_cast<std::size_t>(length));
    Require(tools::CheckPacket(sent).type != tools::PacketType::kBad,
            "the camera gets sound packets only");
  }
}

}  // namespace kestrelbridge::test

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  if (!kestrelbridge::test::EnterSandbox() || !kestrelbridge::test::PlaceCamera()) {
    _exit(1);
  }
  // The daemon's log would be all that one sees. Findings are written to the descriptor itself.
  stderr = std::fopen("/dev/null", "we");
  return 0;
}
