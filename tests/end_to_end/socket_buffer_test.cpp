#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "net/udp_endpoint.h"

namespace kestrelbridge::test {
namespace {

constexpr int kWanted = 10'000'000;

int BufferSize(int socket, int option) {
  int size = 0;
  socklen_t length = sizeof size;
  getsockopt(socket, SOL_SOCKET, option, &size, &length);
  return size;
}

// The most that the kernel gives to this user: all of it to root, its limit to others.
int MostToBeHad(int forced_option, int plain_option) {
  const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (setsockopt(socket, SOL_SOCKET, forced_option, &kWanted, sizeof kWanted) != 0) {
    setsockopt(socket, SOL_SOCKET, plain_option, &kWanted, sizeof kWanted);
  } else {
    EXPECT_GE(BufferSize(socket, plain_option), kWanted);
  }
  const int size = BufferSize(socket, plain_option);
  close(socket);
  return size;
}

TEST(SocketBuffers, AreTenMillionBytesForRootAndTheKernelsLimitForOthers) {
  static UdpEndpoint endpoint;  // its receive thread lives as long as the process
  ASSERT_EQ(Open(endpoint, 0), 0);
  EXPECT_EQ(BufferSize(endpoint.socket, SO_RCVBUF), MostToBeHad(SO_RCVBUFFORCE, SO_RCVBUF));
  EXPECT_EQ(BufferSize(endpoint.socket, SO_SNDBUF), MostToBeHad(SO_SNDBUFFORCE, SO_SNDBUF));
}

}  // namespace
}  // namespace kestrelbridge::test
