// Commands and switches on their real ways in. A program of its own, because the threads that it
// starts cannot be stopped.

#include "app/main_app_link.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "control/camera_end.h"
#include "kestrelbridge/rc_block.h"
#include "support/eventually.h"

namespace kestrelbridge {
namespace {

constexpr char kBlockPath[] = "/dev/shm/shared_rc_raw";

// The ports of all UDP sockets of this test's private network, from the kernel.
std::vector<std::uint16_t> BoundPorts() {
  std::ifstream table("/proc/self/net/udp");
  std::string line;
  std::getline(table, line);
  std::vector<std::uint16_t> ports;
  while (std::getline(table, line)) {
    const std::size_t at = line.find(':', line.find(':') + 1);  // "  1: 00000000:2328 ..."
    ports.push_back(static_cast<std::uint16_t>(std::stoul(line.substr(at + 1, 4), nullptr, 16)));
  }
  return ports;
}

std::vector<std::uint16_t> daemon_ports;

class MainAppLinkTest : public CameraEnd {
 protected:
  // Has the daemon's endpoints and threads started before every test.
  MainAppLinkTest() {
    if (daemon_ports.empty()) {
      const std::vector<std::uint16_t> others = BoundPorts();
      EXPECT_EQ(mkdir(kBlockPath, 0700), 0);  // no block to be had yet
      EXPECT_EQ(InitMainAppLink("127.0.0.1", 5000), 0);
      daemon_ports = BoundPorts();
      std::erase_if(daemon_ports, [&](auto port) { return std::ranges::count(others, port) != 0; });
      EXPECT_EQ(daemon_ports.size(), 2U) << "command endpoint and second endpoint";
    }
  }

  // To both endpoints; the second one drops it.
  void Send(const std::string& text) const {
    const std::vector<std::uint8_t> bytes(text.begin(), text.end());
    for (const std::uint16_t port : daemon_ports) {
      camera_.Send(bytes, {.host = "127.0.0.1", .port = port});
    }
  }

  bool Get(const Frames& expected) {
    Frames frames;
    EXPECT_TRUE(Eventually([&] {
      const Frames more = SentFrames();
      frames.insert(frames.end(), more.begin(), more.end());
      return frames.size() >= expected.size();
    }));
    return frames == expected;
  }
};

const std::string kShot = "55 0E 04 66 02 01 40 02 01 01";

// Whatever the endpoint receives, the longest datagram included, reaches the dispatcher as a text
// that ends, without a rest of the text before.
TEST_F(MainAppLinkTest, PassesTerminatedTextsToTheDispatcher) {
  const auto padded_to = [](std::size_t size) {
    const std::string object = R"({"cmd":"shot"})";
    return "!" + std::string(size - 1 - object.size(), ' ') + object;
  };
  Send(padded_to(9'999));
  EXPECT_TRUE(Get({kShot}));
  Send(padded_to(10'000));  // its last character, the closing brace, does not fit
  Send(R"(!{"cmd":")");
  Send(R"(!{"cmd":"shot"})");
  EXPECT_TRUE(Get({kShot}));
  EXPECT_NE(Log().find("from app: {\"cmd\":\"\n"), std::string::npos);
}

TEST_F(MainAppLinkTest, ObeysTheSwitchesOnceThereAreACameraAndABlock) {
  ReceiveCameraData();
  rmdir(kBlockPath);
  struct stat status {};
  ASSERT_TRUE(Eventually([&] { return stat(kBlockPath, &status) == 0 && status.st_size == 1504; }));

  const int descriptor = shm_open(kRcBlockName, O_RDWR, 0);
  ASSERT_NE(descriptor, -1);
  void* mapped = mmap(nullptr, kRcBlockSize, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  ASSERT_NE(mapped, MAP_FAILED);
  auto* const block = static_cast<std::uint8_t*>(mapped);
  StoreRcChannel(block, kRcRecordSwitch, -1);
  EXPECT_TRUE(Get({kShot}));
  StoreRcChannel(block, kRcEvSlider, 0);
  StoreRcSliderEnabled(block, 1);
  EXPECT_TRUE(Get({"55 0E 04 66 02 01 40 02 2E 10"}));
  munmap(mapped, kRcBlockSize);
  close(descriptor);
}

}  // namespace
}  // namespace kestrelbridge
