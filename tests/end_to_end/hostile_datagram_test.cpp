// Whatever arrives on whichever port, the daemon goes on and the next good unit gets through.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

#include "base/byte_order.h"
#include "camera/packet_format.h"
#include "end_to_end/daemon_stage.h"
#include "tools/wire/unit_header.h"

namespace kestrelbridge::test {
namespace {

constexpr std::size_t kLongest = 10'000;  // of the daemon's receive buffers
// So much may wait in a socket whose buffer the kernel has capped at its usual limit.
constexpr std::size_t kMayWait = 100'000;

// Puts the bytes at the offset, as far as there is room.
void Put(Bytes& datagram, std::size_t offset, const std::string& bytes) {
  for (std::size_t i = 0; i < bytes.size() && offset + i < datagram.size(); ++i) {
    datagram[offset + i] = static_cast<std::uint8_t>(bytes[i]);
  }
}

void BeVideo(Bytes& datagram) { Put(datagram, kWrapperKindOffset, {kKindVideo}); }
void BeCommandData(Bytes& datagram) { Put(datagram, kWrapperKindOffset, {kKindCommandData}); }

// Its unit's length is a random one.
void BeUnitHeader(Bytes& datagram) {
  BeVideo(datagram);
  const std::string header(tools::kUnitHeader.begin(), tools::kUnitHeader.end());
  Put(datagram, tools::kUnitHeaderOffset, header.substr(0, 4));
  Put(datagram, tools::kUnitMarkOffset, header.substr(6, 3));
}

// Each makes something of random bytes.
void (*const kShapes[])(Bytes& datagram) = {
    [](Bytes&) {},
    BeCommandData,
    [](Bytes& datagram) {  // command frames whose lengths lie about what follows
      BeCommandData(datagram);
      for (std::size_t i = kReceivedWrapperSize; i < datagram.size(); i += 7) {
        datagram[i] = kFrameStart;
      }
    },
    BeVideo,
    BeUnitHeader,
    [](Bytes& datagram) {  // a whole unit, which opens with a damaged parameter set
      BeUnitHeader(datagram);
      if (datagram.size() > tools::kUnitHeaderEnd) {
        StoreLe16(datagram, tools::kUnitLengthOffset,
                  static_cast<std::uint16_t>(datagram.size() - tools::kUnitHeaderEnd));
      }
      Put(datagram, tools::kUnitHeaderEnd, {0x00, 0x00, 0x00, 0x01, 0x67});
    },
    [](Bytes& datagram) { Put(datagram, 0, R"(!{"cmd":"{[\u0000)"); },
};

TEST(HostileDatagrams, OfEveryLengthOnEveryPortLeaveTheDaemonServing) {
  DaemonRun run;
  ASSERT_TRUE(run.camera.Connect());
  ASSERT_TRUE(WaitForBridge(run.daemon.pid()));
  RingWatcher ring;
  const std::vector<BoundPort> ports = UdpPortsOf(run.daemon.pid());
  ASSERT_EQ(ports.size(), 4U);

  const PeerSocket enemy;
  std::mt19937 random(1);
  std::size_t waiting = 0;
  for (std::size_t length = 1; length <= kLongest; ++length) {
    for (const auto shape : kShapes) {
      if (length > 100 && shape != kShapes[length % std::size(kShapes)]) {
        continue;  // one shape is enough where no header ends
      }
      Bytes datagram(length);
      std::ranges::generate(datagram, [&] { return static_cast<std::uint8_t>(random()); });
      shape(datagram);
      for (const BoundPort& bound : ports) {
        enemy.Send(datagram, {.host = "127.0.0.1", .port = bound.port});
      }
      waiting += length + 500;
      if (waiting > kMayWait) {
        ASSERT_TRUE(WaitUntilRead(run.daemon.pid()));
        waiting = 0;
      }
    }
  }
  for (const BoundPort& bound : UdpPortsOf(run.daemon.pid())) {
    EXPECT_EQ(bound.drops, 0U) << "the daemon did not see all that was sent to " << bound.port;
  }
  EXPECT_TRUE(Serves(run, ring));
}

}  // namespace
}  // namespace kestrelbridge::test
