#include "net/udp_endpoint.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "support/eventually.h"
#include "support/peer_socket.h"

namespace kestrelbridge::test {
namespace {

// What the callbacks of the endpoint under test have seen.
std::atomic<int> datagrams{0};
std::atomic<std::size_t> last_length{0};
std::atomic<std::uint16_t> last_port{0};

// The endpoint's clock: stands still until it is set.
std::atomic<std::uint32_t> clock_ms{0};

std::mutex events_mutex;
// "found" and "lost" in the order in which they were reported; "datagram" when it is the first.
std::string& events = *new std::string;

// What happens next at a point of the code, once: interleavings are made on purpose.
class Interlude {
 public:
  void Set(std::function<void()> play) { Swap(play); }
  void Play() {
    std::function<void()> play;
    Swap(play);
    if (play) {
      play();
    }
  }

 private:
  void Swap(std::function<void()>& play) {
    const std::lock_guard lock(events_mutex);
    play_.swap(play);
  }
  std::function<void()> play_;
};
// Never destroyed: the receive threads live as long as the process.
Interlude& at_clock = *new Interlude;
Interlude& at_found = *new Interlude;
Interlude& at_lost = *new Interlude;
Interlude& at_datagram = *new Interlude;

void Note(const char* event) {
  const std::lock_guard lock(events_mutex);
  events += std::string(events.empty() ? "" : " ") + event;
}

std::string Events() {
  const std::lock_guard lock(events_mutex);
  return events;
}

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
  datagrams = 0;
  clock_ms = 1'000'000;
  at_clock.Set({});
  at_found.Set({});
  at_lost.Set({});
  at_datagram.Set({});
  events.clear();
  EXPECT_EQ(Open(endpoint, 0), 0);
  endpoint.clear_before_receive = clear_before_receive;
  endpoint.now_ms = [] {
    const std::uint32_t now = clock_ms;
    at_clock.Play();
    return now;
  };
  endpoint.on_found = [](const char* sender) {
    EXPECT_STREQ(sender, "127.0.0.1");
    Note("found");
    at_found.Play();
  };
  endpoint.on_lost = [] {
    Note("lost");
    at_lost.Play();
  };
  endpoint.on_datagram = [](std::span<const std::uint8_t> datagram, const char* sender,
                            std::uint16_t port) {
    {
      const std::lock_guard lock(seen_mutex);
      std::ranges::copy(buffer, last_seen.buffer.begin());
      last_seen.sender = sender;
    }
    last_port = port;
    last_length = datagram.size();
    if (datagrams++ == 0) {
      Note("datagram");
    }
    at_datagram.Play();
  };
  AttachBuffer(endpoint, buffer.first(kBufferSize));
  return endpoint;
}

void SendAndWait(const PeerSocket& sender, const UdpEndpoint& endpoint, std::size_t length = 1) {
  const int before = datagrams;
  sender.Send(std::vector<std::uint8_t>(length, 0x42),
              {.host = "127.0.0.1", .port = LocalPort(endpoint)});
  ASSERT_TRUE(Eventually([&] { return datagrams > before; }));
}

TEST(UdpEndpoint, ReportsTheFirstDatagramAsFoundBeforeItIsHandedOver) {
  UdpEndpoint& endpoint = StartEndpoint();
  at_found.Set([&] { EXPECT_FALSE(LinkIsUp(endpoint)) << "first it is reported"; });
  PeerSocket sender;
  SendAndWait(sender, endpoint, 5);
  EXPECT_EQ(last_length, 5U);
  EXPECT_EQ(LastSeen().sender, "127.0.0.1");
  EXPECT_EQ(last_port, sender.port());
  EXPECT_EQ(Peer(endpoint).port, sender.port());
  EXPECT_EQ(Peer(endpoint).address, htonl(INADDR_LOOPBACK));
  PeerSocket second;
  SendAndWait(second, endpoint, 5);
  EXPECT_EQ(Peer(endpoint).port, second.port()) << "the peer is followed to another port";
  EXPECT_EQ(Events(), "found datagram");
}

TEST(UdpEndpoint, LosesTheLinkAfterMoreThanItsTimeoutAndFindsItAgain) {
  UdpEndpoint& endpoint = StartEndpoint();
  CheckLink(endpoint);
  EXPECT_EQ(Events(), "") << "never up, so never lost";
  PeerSocket sender;
  SendAndWait(sender, endpoint);
  at_lost.Set([&] {
    EXPECT_TRUE(LinkIsUp(endpoint)) << "first it is reported";
    EXPECT_EQ(Peer(endpoint).port, sender.port());
  });
  clock_ms += 1000;
  CheckLink(endpoint);
  EXPECT_EQ(Events(), "found datagram");
  EXPECT_TRUE(LinkIsUp(endpoint));
  clock_ms += 1;
  CheckLink(endpoint);
  EXPECT_EQ(Events(), "found datagram lost");
  EXPECT_FALSE(LinkIsUp(endpoint));
  EXPECT_EQ(Peer(endpoint).port, 0);
  EXPECT_EQ(Peer(endpoint).address, 0U);
  SendAndWait(sender, endpoint);
  EXPECT_EQ(Events(), "found datagram lost found");
  EXPECT_EQ(Peer(endpoint).port, sender.port());
}

TEST(UdpEndpoint, CutsALongDatagramToTheBufferAndTerminatesATextHoweverLongItIs) {
  PeerSocket sender;
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
  PeerSocket receiver;
  const std::array<std::uint8_t, 3> data = {1, 2, 3};
  EXPECT_EQ(SendTo(endpoint, data, "127.0.0.1", receiver.port()), 3);
  EXPECT_EQ(receiver.Receive()->bytes, (std::vector<std::uint8_t>{1, 2, 3}));
  for (const char* host : {"localhost", "", "127.0.0.1.1", "camera"}) {
    EXPECT_EQ(SendTo(endpoint, data, host, receiver.port()), -1) << host;
  }
  UdpEndpoint other;
  EXPECT_EQ(Open(other, receiver.port()), -1) << "the port is taken";
}

// --- what happens between two steps of the watchdog or of the receive thread

TEST(UdpEndpoint, ADatagramThatComesWhileTheLossIsReportedIsTheFirstOfTheNextLink) {
  for (const bool from_another : {false, true}) {
    UdpEndpoint& endpoint = StartEndpoint();
    const PeerSocket first;
    const PeerSocket second;
    const PeerSocket& in_between = from_another ? second : first;
    SendAndWait(first, endpoint);
    clock_ms += 5000;
    at_lost.Set([&] { SendAndWait(in_between, endpoint); });
    for (int tick = 0; tick < 2; ++tick) {
      CheckLink(endpoint);
      EXPECT_EQ(Events(), "found datagram lost found");
      EXPECT_TRUE(LinkIsUp(endpoint));
      EXPECT_EQ(Peer(endpoint).port, in_between.port());
    }
  }
}

TEST(UdpEndpoint, ALinkThatIsTakenDownWhileADatagramIsBeingRecordedIsFoundByIt) {
  UdpEndpoint& endpoint = StartEndpoint();
  const PeerSocket sender;
  SendAndWait(sender, endpoint);
  clock_ms += 5000;
  at_clock.Set([&] { CheckLink(endpoint); });  // the receive thread's look at the clock
  SendAndWait(sender, endpoint);
  EXPECT_EQ(Events(), "found datagram lost found");
  EXPECT_TRUE(LinkIsUp(endpoint));
  EXPECT_EQ(Peer(endpoint).port, sender.port());
}

TEST(UdpEndpoint, ADatagramThatComesWhileTheWatchdogReadsTheClockKeepsTheLink) {
  for (const std::uint32_t age_ms : {10U, 5000U}) {
    UdpEndpoint& endpoint = StartEndpoint();
    const PeerSocket sender;
    SendAndWait(sender, endpoint);
    clock_ms += age_ms;
    at_clock.Set([&] {  // the clock has been read already: the datagram is younger
      clock_ms += 1;
      SendAndWait(sender, endpoint);
    });
    CheckLink(endpoint);
    EXPECT_EQ(Events(), "found datagram") << age_ms;
  }
}

TEST(UdpEndpoint, ALinkIsNotStaleAtOnceWhenItTookLongToReportItAsFound) {
  UdpEndpoint& endpoint = StartEndpoint();
  at_found.Set([] { clock_ms += 5000; });
  SendAndWait(PeerSocket(), endpoint);
  CheckLink(endpoint);
  EXPECT_EQ(Events(), "found datagram");
}

TEST(UdpEndpoint, InputThatWaitsKeepsTheLinkForOneStepOfTheWatchdog) {
  UdpEndpoint& endpoint = StartEndpoint();
  const PeerSocket sender;
  const UdpAddress address = {.host = "127.0.0.1", .port = LocalPort(endpoint)};
  std::string expected = "found datagram";
  for (const int steps : {1, 2, 1, 3}) {  // and after each the link is up again
    std::atomic<bool> stalled{true};
    at_datagram.Set([&] { stalled.wait(true); });
    SendAndWait(sender, endpoint);
    sender.Send(std::vector<std::uint8_t>{1}, address);
    clock_ms += 5000;
    for (int step = 1; step <= steps; ++step) {
      CheckLink(endpoint);
      expected += step == 2 ? " lost" : "";
      EXPECT_EQ(Events(), expected);
    }
    const int before = datagrams;
    stalled = false;
    stalled.notify_all();
    ASSERT_TRUE(Eventually([&] { return datagrams > before; }));
    expected += steps > 1 ? " found" : "";
    EXPECT_EQ(Events(), expected);
  }
}

}  // namespace
}  // namespace kestrelbridge::test
