// Commands on their real way in. A program of its own, because the threads that it
// starts cannot be stopped.

#include "app/main_app_link.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include "control/camera_end.h"
#include "state/main_app_link_record.h"
#include "support/eventually.h"

namespace kestrelbridge {
namespace {

using MainAppLinkTest = CameraEnd;

// Whatever the endpoint receives, the longest datagram included, reaches the dispatcher as a text
// that ends, without a rest of the text before.
TEST_F(MainAppLinkTest, PassesTerminatedTextsToTheDispatcher) {
  ASSERT_EQ(InitMainAppLink("127.0.0.1", 5000), 0);
  // To both endpoints; the second one drops it.
  const auto send = [&](const std::string& text) {
    for (const int socket : {GetMainAppLink().command_endpoint.socket.load(),
                             GetMainAppLink().second_endpoint.socket.load()}) {
      sockaddr_in address{};
      socklen_t size = sizeof address;
      ASSERT_EQ(getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size), 0);
      camera_.Send(std::vector<std::uint8_t>(text.begin(), text.end()),
                   {.host = "127.0.0.1", .port = ntohs(address.sin_port)});
    }
  };
  const auto padded_to = [](std::size_t size) {
    const std::string object = R"({"cmd":"shot"})";
    return "!" + std::string(size - 1 - object.size(), ' ') + object;
  };
  const auto get_a_shot = [&] {
    Frames frames;
    EXPECT_TRUE(Eventually([&] { return !(frames = SentFrames()).empty(); }));
    EXPECT_EQ(frames, Frames{"55 0E 04 66 02 01 40 02 01 01"});
  };
  send(padded_to(9'999));
  get_a_shot();
  send(padded_to(10'000));  // its last character, the closing brace, does not fit
  send(R"(!{"cmd":")");
  send(R"(!{"cmd":"shot"})");
  get_a_shot();
  EXPECT_NE(Log().find("from app: {\"cmd\":\"\n"), std::string::npos);
}

}  // namespace
}  // namespace kestrelbridge
