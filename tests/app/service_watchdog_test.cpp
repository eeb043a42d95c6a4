#include "app/service_watchdog.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <string>

#include "net/udp_endpoint.h"
#include "support/child_process.h"
#include "support/eventually.h"
#include "support/peer_socket.h"
#include "support/temporary_folder.h"

namespace kestrelbridge::test {
namespace {

std::atomic<int> inside{0};
std::atomic<int> let_go{0};

TEST(ServiceWatchdog, AThreadHangsWhenItStaysInsideOneDatagramAndNotWhenItWaitsForOne) {
  static LinkCounters counters;
  static UdpEndpoint endpoint{.counters = &counters};
  static std::array<std::uint8_t, 100> buffer;
  endpoint.on_datagram = [](std::span<const std::uint8_t>, const char*, std::uint16_t) {
    ++inside;
    let_go.wait(inside - 1);  // until as many are let go
  };
  ASSERT_EQ(Open(endpoint, 0), 0);
  AttachBuffer(endpoint, buffer);
  const PeerSocket sender;
  ReceiveWatch watch{.counters = &counters};
  const auto send = [&](int count) {
    sender.Send(std::array<std::uint8_t, 1>{'x'},
                {.host = "127.0.0.1", .port = LocalPort(endpoint)});
    ASSERT_TRUE(Eventually([&] { return inside == count; }));
  };
  EXPECT_FALSE(HasHung(watch));
  EXPECT_FALSE(HasHung(watch)) << "it waits for its first datagram";
  for (int count = 1; count <= 2; ++count) {
    send(count);
    EXPECT_FALSE(HasHung(watch)) << "it has only just begun";
    EXPECT_TRUE(HasHung(watch));
    EXPECT_TRUE(HasHung(watch));
    let_go = count;
    let_go.notify_all();
    EXPECT_TRUE(Eventually([&] { return !HasHung(watch); }));
    EXPECT_FALSE(HasHung(watch)) << "it waits for the next";
  }
}

// Receives what is said to a service manager.
class Manager {
 public:
  explicit Manager(const std::string& name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name[0] == '@') {
      address.sun_path[0] = '\0';
    }
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr*>(&address), size), 0);
    const timeval patience{.tv_sec = Patience() / std::chrono::seconds{1}, .tv_usec = 0};
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  }
  Manager(const Manager&) = delete;
  Manager& operator=(const Manager&) = delete;
  ~Manager() { close(socket_); }

  std::string Next() const {
    std::array<char, 100> text{};
    const ssize_t length = recv(socket_, text.data(), text.size(), 0);
    return {text.data(), static_cast<std::size_t>(length < 0 ? 0 : length)};
  }

 private:
  const int socket_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

TEST(ServiceWatchdog, TheDaemonIsReadyOnceAndThenHeardAgainAndAgain) {
  const TemporaryFolder folder;
  for (const std::string& name : {folder.File("notify"), std::string("@kestrelbridge-test")}) {
    const Manager manager(name);
    ChildProcess daemon(
        {"env", "NOTIFY_SOCKET=" + name, ProgramPath("kestrelbridge"), "--port", "9104"});
    EXPECT_EQ(manager.Next(), "READY=1") << name << daemon.Error();
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(manager.Next(), "WATCHDOG=1") << name;
    }
  }
}

}  // namespace
}  // namespace kestrelbridge::test
