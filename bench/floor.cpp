// The floor: the least that any program must do for the same job, in as few lines as possible. It
// checks nothing, serves nobody else and survives no hostile datagram.
//
//   bench_floor receive CAMERA_PORT       recvfrom into one buffer, each datagram's video bytes
//   into
//                                         a staging buffer, each unit into shared memory
//   bench_floor acknowledge CAMERA_PORT   the same, and one acknowledgement a unit, as the camera
//                                         wants it
//   bench_floor forward CAMERA_PORT PORT  a bare echo, to another port: what comes goes out again
//
// The camera is on the loopback; a first packet tells it where this program listens.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "kestrelbridge/frame_block.h"

namespace {

using kestrelbridge::kFrameBlockSize;

constexpr std::size_t kWrapperSize = 20;
constexpr std::size_t kUnitHeaderEnd = 32;
constexpr std::uint8_t kVideo = 2;
constexpr std::size_t kAcknowledgementSize = 34;

std::uint8_t buffer[10'000];
std::uint8_t staging[100'000];

sockaddr_in LoopbackPort(const char* port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(port)));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

void SendTo(int socket, const void* bytes, std::size_t length, const sockaddr_in& address) {
  sendto(socket, bytes, length, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

// The same room for bursts as the daemon's.
void EnlargeBuffer(int socket, int forced_option, int plain_option) {
  constexpr int kBytes = 10'000'000;
  if (setsockopt(socket, SOL_SOCKET, forced_option, &kBytes, sizeof kBytes) != 0) {
    setsockopt(socket, SOL_SOCKET, plain_option, &kBytes, sizeof kBytes);
  }
}

// The same ring in the same place, so that the same reader can look at it. Zeroed, so that its
// pages are there.
std::uint8_t* MapRing() {
  const int descriptor = shm_open(kestrelbridge::kFrameBlockName, O_RDWR | O_CREAT, 0600);
  if (descriptor == -1 || ftruncate(descriptor, kFrameBlockSize) != 0) {
    std::exit(1);
  }
  void* ring = mmap(nullptr, kFrameBlockSize, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  if (ring == MAP_FAILED) {
    std::exit(1);
  }
  std::memset(ring, 0, kFrameBlockSize);
  return static_cast<std::uint8_t*>(ring);
}

// Written down again: this program has nothing of ours but the ring's layout.
bool IsUnitHeader(const std::uint8_t* datagram) {
  return datagram[20] == 0 && datagram[21] == 0 && datagram[22] == 1 && datagram[23] == 0xFF &&
         datagram[26] == 0xFF && datagram[27] == 0 && datagram[28] == 0x4C;
}

void Publish(std::uint8_t* ring, std::uint16_t unit, std::size_t length) {
  static std::size_t slot = 0;
  std::memcpy(ring + kestrelbridge::SlotOffset(slot) + kestrelbridge::kSlotHeaderSize, staging,
              length);
  kestrelbridge::StoreShared16(ring + kestrelbridge::kLastSequenceOffset, unit, __ATOMIC_RELEASE);
  slot = slot + 1 == kestrelbridge::kSlotCount ? 0 : slot + 1;
}

[[noreturn]] void Receive(int socket, const sockaddr_in& camera, bool acknowledge) {
  std::uint8_t* const ring = MapRing();
  std::uint16_t unit = 0;
  std::size_t fill = 0;
  const std::uint8_t acknowledgement[kAcknowledgementSize] = {};
  for (SendTo(socket, acknowledgement, 1, camera);;) {
    const ssize_t received = recvfrom(socket, buffer, sizeof buffer, 0, nullptr, nullptr);
    if (received < static_cast<ssize_t>(kUnitHeaderEnd) || buffer[6] != kVideo) {
      continue;
    }
    std::size_t begin = kWrapperSize;
    if (IsUnitHeader(buffer)) {
      if (fill != 0) {
        Publish(ring, unit++, fill);
        if (acknowledge) {
          SendTo(socket, acknowledgement, sizeof acknowledgement, camera);
        }
      }
      begin = kUnitHeaderEnd;
      fill = 0;
    }
    const std::size_t length = static_cast<std::size_t>(received) - begin;
    if (fill + length <= sizeof staging) {
      std::memcpy(staging + fill, buffer + begin, length);
      fill += length;
    }
  }
}

[[noreturn]] void Forward(int socket, const sockaddr_in& camera, const sockaddr_in& receiver) {
  for (SendTo(socket, "", 1, camera);;) {
    const ssize_t received = recvfrom(socket, buffer, sizeof buffer, 0, nullptr, nullptr);
    if (received > 0) {
      SendTo(socket, buffer, static_cast<std::size_t>(received), receiver);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    return 1;
  }
  const std::string_view job = argv[1];
  const sockaddr_in camera = LoopbackPort(argv[2]);
  const int socket = ::socket(AF_INET, SOCK_DGRAM, 0);
  const sockaddr_in any = LoopbackPort("0");
  if (bind(socket, reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0) {
    return 1;
  }
  EnlargeBuffer(socket, SO_RCVBUFFORCE, SO_RCVBUF);
  EnlargeBuffer(socket, SO_SNDBUFFORCE, SO_SNDBUF);
  if (job == "forward" && argc == 4) {
    Forward(socket, camera, LoopbackPort(argv[3]));
  }
  Receive(socket, camera, job == "acknowledge");
}
