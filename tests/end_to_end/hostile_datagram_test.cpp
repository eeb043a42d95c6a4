// Whatever arrives on whichever port, the daemon goes on and the next good unit gets through.

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <random>
#include <string_view>

#include "base/byte_order.h"
#include "camera/packet_format.h"
#include "end_to_end/daemon_bench.h"

namespace kestrelbridge {
namespace {

constexpr std::size_t kLongest = 10'000;  // of the daemon's receive buffers
// So much may wait in a socket whose buffer the kernel has capped at its usual limit.
constexpr std::size_t kMayWait = 100'000;

using Random = std::mt19937;

// Each makes a datagram out of `length` random bytes.
void LeaveRandom(Bytes& /*datagram*/) {}

void OfKind(Bytes& datagram, std::uint8_t kind) {
  if (datagram.size() > kWrapperKindOffset) {
    datagram[kWrapperKindOffset] = kind;
  }
}

// Puts the bytes at the offset, as far as there is room.
void Put(Bytes& datagram, std::size_t offset, const Bytes& bytes) {
  for (std::size_t i = 0; i < bytes.size() && offset + i < datagram.size(); ++i) {
    datagram[offset + i] = bytes[i];
  }
}

void MakeCommandData(Bytes& datagram) { OfKind(datagram, kKindCommandData); }

// Command frames whose lengths lie about what follows.
void MakeLyingFrames(Bytes& datagram) {
  OfKind(datagram, kKindCommandData);
  for (std::size_t i = kReceivedWrapperSize; i < datagram.size(); i += 7) {
    datagram[i] = kFrameStart;
  }
}

void MakeContinuation(Bytes& datagram) { OfKind(datagram, kKindVideo); }

void MakeLyingHeader(Bytes& datagram) {
  OfKind(datagram, kKindVideo);
  Put(datagram, 20, {0x00, 0x00, 0x01, 0xFF});
  Put(datagram, 26, {0xFF, 0x00, 0x4C});
}

// A whole unit of one datagram, which opens with a damaged parameter set.
void MakeDamagedParameterSet(Bytes& datagram) {
  MakeLyingHeader(datagram);
  if (datagram.size() > 32) {
    StoreLe16(datagram, 24, static_cast<std::uint16_t>(datagram.size() - 32));
  }
  Put(datagram, 32, {0x00, 0x00, 0x00, 0x01, 0x67});
}

void MakeText(Bytes& datagram) {
  constexpr std::string_view kText = R"(!{"cmd":"{[\u0000)";
  Put(datagram, 0, Bytes(kText.begin(), kText.end()));
}

struct Hostility {
  const char* name;
  void (*shape)(Bytes& datagram);
};
std::ostream& operator<<(std::ostream& out, const Hostility& row) { return out << row.name; }

class HostileDatagrams : public testing::TestWithParam<Hostility> {};

TEST_P(HostileDatagrams, OfEveryLengthOnEveryPortLeaveTheDaemonServing) {
  ScriptedCamera camera(kOtherCameraPort);
  ChildProcess daemon(DaemonCommandFor(kOtherCameraPort));
  ASSERT_TRUE(camera.Connect());
  ASSERT_FALSE(camera.Receive().empty());  // a further heartbeat: all endpoints are open
  RingWatcher ring;
  const std::vector<BoundPort> ports = UdpPortsOf(daemon.pid());
  ASSERT_GE(ports.size(), 3U);

  const UdpSocket enemy;
  Random random(1);
  std::size_t waiting = 0;
  for (std::size_t length = 1; length <= kLongest; ++length) {
    Bytes datagram(length);
    std::ranges::generate(datagram, [&] { return static_cast<std::uint8_t>(random()); });
    GetParam().shape(datagram);
    for (const BoundPort& bound : ports) {
      enemy.Send(datagram, {.host = "127.0.0.1", .port = bound.port});
    }
    waiting += length + 500;
    if (waiting > kMayWait) {
      ASSERT_TRUE(WaitUntilRead(daemon.pid()));
      waiting = 0;
    }
  }
  for (const BoundPort& bound : UdpPortsOf(daemon.pid())) {
    EXPECT_EQ(bound.drops, 0U) << "the daemon did not see all that was sent to " << bound.port;
  }
  const Bytes unit = MakeUnit(5000, 2);
  camera.SendUnit(unit);
  camera.SendNextHeader();
  EXPECT_TRUE(ring.WaitFor(unit));
  EXPECT_TRUE(daemon.IsRunning());
}

INSTANTIATE_TEST_SUITE_P(Shape, HostileDatagrams,
                         testing::Values(Hostility{"Random", LeaveRandom},
                                         Hostility{"CommandData", MakeCommandData},
                                         Hostility{"LyingFrames", MakeLyingFrames},
                                         Hostility{"Continuations", MakeContinuation},
                                         Hostility{"LyingHeaders", MakeLyingHeader},
                                         Hostility{"DamagedParameterSets", MakeDamagedParameterSet},
                                         Hostility{"Texts", MakeText}),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace kestrelbridge
