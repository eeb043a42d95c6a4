#include "net/udp_endpoint.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "net/clock.h"
#include "support/eventually.h"
#include "support/udp_socket.h"

namespace kestrelbridge::test {
namespace {

// What the callbacks of the endpoint under test have seen.
std::atomic<int> found{0};
std::atomic<int> lost{0};
std::atomic<int> datagrams{0};
std::atomic<int> found_at_last_datagram{0};
std::atomic<std::size_t> last_length{0};
std::atomic<std::uint16_t> last_port{0};

constexpr std::size_t kBufferSize = 10'000;
constexpr std::size_t kGuardSize = 64;
constexpr std::uint8_t kGuardByte = 0xA5;
std::span<std::uint8_t> buffer;  // the endpoint's, until it is cleared for the next datagram

// What the last datagram brought.
struct Seen {
  std::array<std::uint8_t, kBufferSize + kGuardSize> buffer{};
  std::string sender;
};
std::mutex seen_mutex;
Seen last_seen;

Seen LastSeen() {
  const std::lock_guard lock(seen_mutex);
  return last_seen;
}

UdpEndpoint& StartEndpoint(bool clear_before_receive = false) {
  // Both live for ever, because the receive thread does.
  auto& endpoint = *new UdpEndpoint;
  buffer = {new std::uint8_t[kBufferSize + kGuardSize], kBufferSize + kGuardSize};
  std::ranges::fill(buffer, kGuardByte);
  found = lost = datagrams = 0;
  EXPECT_EQ(Open(endpoint, 0), 0);
  endpoint.clear_before_receive = clear_before_receive;
  endpoint.on_found = [](const char* /*sender*/) { ++found; };
  endpoint.on_lost = [] { ++lost; };
  endpoint.on_datagram = [](std::span<const std::uint8_t> datagram, const char* sender,
                            std::uint16_t port) {
    {
      const std::lock_guard lock(seen_mutex);
      std::ranges::copy(buffer, last_seen.buffer.begin());
      last_seen.sender = sender;
    }
    last_port = port;
    last_length = datagram.size();
    found_at_last_datagram = found.load();
    ++datagrams;
  };
  AttachBuffer(endpoint, buffer.first(kBufferSize));
  return endpoint;
}

UdpAddress AddressOf(const UdpEndpoint& endpoint) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(endpoint.socket, reinterpret_cast<sockaddr*>(&address), &size);
  return {.host = "127.0.0.1", .port = ntohs(address.sin_port)};
}

void SendAndWait(UdpSocket& sender, const UdpEndpoint& endpoint, std::size_t length) {
  const int before = datagrams;
  sender.Send(std::vector<std::uint8_t>(length, 0x42), AddressOf(endpoint));
  ASSERT_TRUE(Eventually([&] { return datagrams > before; }));
}

// Lets the watchdog see exactly this age: tries again when the clock ticked meanwhile.
void CheckLinkAtAge(UdpEndpoint& endpoint, std::uint32_t age_ms) {
  std::uint32_t now = 0;
  const int lost_before = lost;
  do {
    now = NowMs();
    lost = lost_before;
    endpoint.last_receive_ms = now - age_ms;
    CheckLink(endpoint);
  } while (NowMs() != now);
}

TEST(UdpEndpoint, ReportsTheFirstDatagramAsFoundBeforeItIsHandedOver) {
  UdpEndpoint& endpoint = StartEndpoint();
  UdpSocket sender;
  SendAndWait(sender, endpoint, 5);
  EXPECT_EQ(found_at_last_datagram, 1);
  EXPECT_EQ(last_length, 5U);
  EXPECT_EQ(LastSeen().sender, "127.0.0.1");
  EXPECT_EQ(last_port, sender.port());
  EXPECT_EQ(Peer(endpoint).port, sender.port());
  EXPECT_EQ(Peer(endpoint).address, htonl(INADDR_LOOPBACK));
  UdpSocket second;
  SendAndWait(second, endpoint, 5);
  EXPECT_EQ(Peer(endpoint).port, second.port()) << "the peer is followed to another port";
  EXPECT_EQ(found, 1);
}

TEST(UdpEndpoint, LosesTheLinkAfterMoreThanItsTimeoutAndFindsItAgain) {
  UdpEndpoint& endpoint = StartEndpoint();
  CheckLink(endpoint);
  EXPECT_EQ(lost, 0) << "never up, so never lost";
  UdpSocket sender;
  SendAndWait(sender, endpoint, 1);
  CheckLinkAtAge(endpoint, 1000);
  EXPECT_EQ(lost, 0);
  EXPECT_TRUE(LinkIsUp(endpoint));
  CheckLinkAtAge(endpoint, 1001);
  EXPECT_EQ(lost, 1);
  EXPECT_FALSE(LinkIsUp(endpoint));
  EXPECT_EQ(Peer(endpoint).port, 0);
  EXPECT_EQ(Peer(endpoint).address, 0U);
  SendAndWait(sender, endpoint, 1);
  EXPECT_EQ(found_at_last_datagram, 2);
  EXPECT_EQ(Peer(endpoint).port, sender.port());
}

TEST(UdpEndpoint, KeepsThePeerOfALinkWhoseOwnerDoesNotAskForItsLoss) {
  UdpEndpoint& endpoint = StartEndpoint();
  UdpSocket sender;
  SendAndWait(sender, endpoint, 1);
  endpoint.on_lost = nullptr;
  endpoint.last_receive_ms = NowMs() - 5000;
  CheckLink(endpoint);
  EXPECT_FALSE(LinkIsUp(endpoint));
  EXPECT_EQ(Peer(endpoint).port, sender.port());
}

TEST(UdpEndpoint, CutsALongDatagramToTheBufferAndTerminatesATextHoweverLongItIs) {
  UdpSocket sender;
  SendAndWait(sender, StartEndpoint(), kBufferSize + 5000);
  EXPECT_EQ(last_length, kBufferSize);
  EXPECT_EQ(LastSeen().buffer[kBufferSize], kGuardByte);
  UdpEndpoint& endpoint = StartEndpoint(/*clear_before_receive=*/true);
  SendAndWait(sender, endpoint, kBufferSize);
  EXPECT_EQ(last_length, kBufferSize - 1);
  EXPECT_EQ(LastSeen().buffer[kBufferSize - 1], 0);
  EXPECT_EQ(LastSeen().buffer[kBufferSize], kGuardByte);
  SendAndWait(sender, endpoint, 5);
  const Seen seen = LastSeen();
  EXPECT_TRUE(std::all_of(seen.buffer.begin() + 5, seen.buffer.begin() + kBufferSize - 1,
                          [](std::uint8_t byte) { return byte == 0; }));
}

TEST(UdpEndpoint, SendsOnlyToDottedDecimalAddresses) {
  UdpEndpoint& endpoint = StartEndpoint();
  UdpSocket receiver;
  const std::array<std::uint8_t, 3> data = {1, 2, 3};
  EXPECT_EQ(SendTo(endpoint, data, "127.0.0.1", receiver.port()), 3);
  EXPECT_EQ(receiver.Receive()->bytes, (std::vector<std::uint8_t>{1, 2, 3}));
  for (const char* host : {"localhost", "", "127.0.0.1.1", "camera"}) {
    EXPECT_EQ(SendTo(endpoint, data, host, receiver.port()), -1) << host;
  }
  UdpEndpoint other;
  EXPECT_EQ(Open(other, receiver.port()), -1) << "the port is taken";
}

// The watchdog runs as fast as it can against a stream of datagrams, with a time-out that they only
// just meet: found and lost must alternate, and the last datagram must leave the link up and its
// sender known.
TEST(UdpEndpoint, ForgetsNoDatagramThatArrivesWhileTheLinkIsTakenDown) {
  UdpEndpoint& endpoint = StartEndpoint();
  endpoint.timeout_ms = 1;
  UdpSocket sender;
  std::atomic<bool> done{false};
  std::thread watchdog([&] {
    while (!done) {
      CheckLink(endpoint);
    }
  });
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  for (int i = 0; std::chrono::steady_clock::now() < end; ++i) {
    sender.Send(std::vector<std::uint8_t>{1}, AddressOf(endpoint));
    std::this_thread::sleep_for(std::chrono::microseconds(1500 + i % 1000));
  }
  done = true;
  watchdog.join();
  EXPECT_GT(lost, 10);
  SendAndWait(sender, endpoint, 1);
  EXPECT_TRUE(LinkIsUp(endpoint));
  EXPECT_EQ(Peer(endpoint).port, sender.port());
  EXPECT_EQ(found, lost + 1);
}

}  // namespace
}  // namespace kestrelbridge::test
