// The camera's end of the link for the tests of the commands: a real socket that gets what is sent.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/peer_socket.h"

namespace kestrelbridge::test {

using Frames = std::vector<std::string>;

// Before every test the camera's state is cleared and the packet counter is 0.
class CameraEnd : public testing::Test {
 protected:
  CameraEnd();
  void TearDown() override;

  // The command frames sent since the last call, each in hexadecimal without its sequence and
  // CRC-16, "55 0D 04 33 02 01 40 02 72". Fails the test when one of them is damaged, wrongly
  // wrapped or out of sequence.
  Frames SentFrames();

  // What was logged since the last call.
  static std::string Log();

  PeerSocket camera_;

 private:
  std::uint16_t next_sequence_ = 0;
};

// A word that is given, and what comes of it.
struct TextPair {
  std::string first;
  std::string second = {};
};
using TextPairs = std::vector<TextPair>;

}  // namespace kestrelbridge::test
