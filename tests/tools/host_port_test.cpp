#include "tools/host_port.h"

#include <gtest/gtest.h>

namespace kestrelbridge {
namespace {

TEST(HostPort, TakesADottedDecimalAddressAndAPortAndNothingElse) {
  for (const char* const text : {"127.0.0.1:9010", "0.0.0.0:0", "255.255.255.255:65535"}) {
    const auto peer = ParseHostPort(text);
    ASSERT_TRUE(peer) << text;
    EXPECT_EQ(HostPortText(*peer), text);
  }
  for (const char* const text : {"", ":", "127.0.0.1", "127.0.0.1:", ":9010", "127.0.0.1:65536",
                                 "127.0.0.1:-1", "127.0.0.1:+1", "127.0.0.1: 1", "127.0.0.1:9010x",
                                 "127.0.0:9010", "localhost:9010", "1.2.3.4:5:6"}) {
    EXPECT_FALSE(ParseHostPort(text)) << text;
  }
}

}  // namespace
}  // namespace kestrelbridge
