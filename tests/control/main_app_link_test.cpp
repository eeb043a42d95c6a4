// Commands and switches on their real ways in. A program of its own, because the threads that it
// starts cannot be stopped.

#include "app/main_app_link.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "control/camera_end.h"
#include "control/rc_block.h"
#include "state/main_app_link_record.h"
#include "support/eventually.h"

namespace kestrelbridge {
namespace {

constexpr char kBlockPath[] = "/dev/shm/shared_rc_raw";

class MainAppLinkTest : public CameraEnd {
 protected:
  // Has the daemon's endpoints and threads started before every test.
  MainAppLinkTest() {
    static const bool is_started = [] {
      EXPECT_EQ(mkdir(kBlockPath, 0700), 0);  // no block to be had yet
      return InitMainAppLink("127.0.0.1", 5000) == 0;
    }();
    EXPECT_TRUE(is_started);
  }

  // To both endpoints; the second one drops it.
  void Send(const std::string& text) const {
    const std::vector<std::uint8_t> bytes(text.begin(), text.end());
    for (const int socket : {GetMainAppLink().command_endpoint.socket.load(),
                             GetMainAppLink().second_endpoint.socket.load()}) {
      sockaddr_in address{};
      socklen_t size = sizeof address;
      ASSERT_EQ(getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size), 0);
      camera_.Send(bytes, {.host = "127.0.0.1", .port = ntohs(address.sin_port)});
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

  RcBlock block;
  ASSERT_TRUE(OpenRcBlock(block));
  StoreRcChannel(block.bytes, kRcRecordSwitch, -1);
  EXPECT_TRUE(Get({kShot}));
  StoreRcChannel(block.bytes, kRcEvSlider, 0);
  StoreRcSliderEnabled(block.bytes, 1);
  EXPECT_TRUE(Get({"55 0E 04 66 02 01 40 02 2E 10"}));
}

}  // namespace
}  // namespace kestrelbridge
