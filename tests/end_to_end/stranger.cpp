// A host that nobody asked: sends to the daemon's ports what would hurt it, in other hosts' names,
// too. Beside it stands scripts/check-filter.
//
//   stranger COUNT RATE SOURCE:PORT DESTINATION PORT...
//
// COUNT datagrams, RATE a second, in turn to each of the ports; prints how many went out. Needs
// CAP_NET_RAW.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/camera_datagrams.h"

namespace kestrelbridge::test {
namespace {

constexpr std::size_t kIpHeaderSize = 20;
constexpr std::size_t kUdpHeaderSize = 8;
constexpr std::size_t kBatch = 32;

Bytes Text(std::string_view text) { return {text.begin(), text.end()}; }

// What each port would take for its neighbour's; the empty one would end the process.
std::vector<Bytes> HostilePayloads() {
  return {Bytes(49, 0x55),
          {},
          Text(R"(!{"cmd":"format"})"),
          UnitHeaderDatagram(1, 60'000, MakeUnit(1000, 1)),
          ContinuationDatagram(2, MakeUnit(1400, 2)),
          CommandDataDatagram(3, EmptyCommandData())};
}

void StoreBe16(Bytes& bytes, std::size_t offset, std::size_t value) {
  bytes[offset] = static_cast<std::uint8_t>(value >> 8);
  bytes[offset + 1] = static_cast<std::uint8_t>(value);
}

//   0     version 4, header of 5 words          20-21  source port
//   8     time to live                          22-23  destination port
//   9     protocol                              24-25  length, header included
//   12-15 source address (network order)        26-27  checksum; 0: none
//   16-19 destination address
// Length and checksum of the IP header are the kernel's to fill in.
Bytes Packet(in_addr source, std::uint16_t source_port, in_addr destination,
             std::uint16_t destination_port, const Bytes& payload) {
  Bytes packet(kIpHeaderSize + kUdpHeaderSize);
  packet[0] = 0x45;
  packet[8] = 64;
  packet[9] = IPPROTO_UDP;
  std::copy_n(reinterpret_cast<const std::uint8_t*>(&source), sizeof source, &packet[12]);
  std::copy_n(reinterpret_cast<const std::uint8_t*>(&destination), sizeof destination, &packet[16]);
  StoreBe16(packet, 20, source_port);
  StoreBe16(packet, 22, destination_port);
  StoreBe16(packet, 24, kUdpHeaderSize + payload.size());
  packet.insert(packet.end(), payload.begin(), payload.end());
  return packet;
}

// Sends them in turn until `count` are out, `rate` a second as far as the machine can.
long SendAll(int socket, std::vector<Bytes>& packets, sockaddr_in destination, long count,
             long rate) {
  using Clock = std::chrono::steady_clock;
  const auto begin = Clock::now();
  long sent = 0;
  while (sent < count) {
    std::array<iovec, kBatch> parts{};
    std::array<mmsghdr, kBatch> messages{};
    const auto size = static_cast<unsigned>(std::min<long>(kBatch, count - sent));
    for (unsigned i = 0; i < size; ++i) {
      Bytes& packet = packets[static_cast<std::size_t>(sent + i) % packets.size()];
      parts[i] = {.iov_base = packet.data(), .iov_len = packet.size()};
      messages[i].msg_hdr.msg_name = &destination;
      messages[i].msg_hdr.msg_namelen = sizeof destination;
      messages[i].msg_hdr.msg_iov = &parts[i];
      messages[i].msg_hdr.msg_iovlen = 1;
    }
    const int done = sendmmsg(socket, messages.data(), size, 0);
    if (done < 0) {
      std::perror("stranger: sendmmsg");
      break;
    }
    sent += done;
    std::this_thread::sleep_until(begin + std::chrono::nanoseconds{1'000'000'000} * sent / rate);
  }
  return sent;
}

}  // namespace

int RunStranger(int argc, char** argv) {
  const std::string from = argc > 5 ? argv[3] : "";
  const std::size_t colon = from.find(':');
  in_addr source{};
  sockaddr_in destination{};
  destination.sin_family = AF_INET;
  if (colon == std::string::npos || inet_aton(from.substr(0, colon).c_str(), &source) == 0 ||
      inet_aton(argv[4], &destination.sin_addr) == 0) {
    std::fputs("usage: stranger COUNT RATE SOURCE:PORT DESTINATION PORT...\n", stderr);
    return 1;
  }
  const auto source_port = static_cast<std::uint16_t>(std::atoi(from.c_str() + colon + 1));
  std::vector<Bytes> packets;
  for (const Bytes& payload : HostilePayloads()) {
    for (int i = 5; i < argc; ++i) {
      packets.push_back(Packet(source, source_port, destination.sin_addr,
                               static_cast<std::uint16_t>(std::atoi(argv[i])), payload));
    }
  }
  const int socket = ::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW);  // our own IP header
  const int on = 1;
  setsockopt(socket, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
  const long count = std::atol(argv[1]);
  const long sent = SendAll(socket, packets, destination, count, std::max(1L, std::atol(argv[2])));
  std::printf("sent: %ld\n", sent);
  return sent == count ? 0 : 1;
}

}  // namespace kestrelbridge::test

int main(int argc, char** argv) { return kestrelbridge::test::RunStranger(argc, argv); }
