// The real kestrelconsole, with the test in the place of daemon and share.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "console/web_client.h"
#include "share/owned_descriptor.h"
#include "support/child_process.h"
#include "video/frame_buffers.h"
#include "video/numbered_unit.h"

namespace kestrelbridge::test {

// The daemon's side of the ring, once for this process: a second one would find it taken.
inline void OpenRing() {
  static const int outcome = InitFrameBuffers();
  ASSERT_EQ(outcome, 0);
}

// Of the numbered units every 32nd looks like a parameter set.
inline bool IsKeyNumber(std::uint32_t number) { return number % 32 == 7; }

inline void Publish(std::uint32_t number, std::size_t length = 2'000) {
  PublishVideoUnit(NumberedUnit(number, length));
}

struct ConsoleStage {
  explicit ConsoleStage(std::vector<std::string> options = {});

  std::uint16_t port = 0;
  ChildProcess console;
};

// One at the share's sockets.
class FakeShare {
 public:
  FakeShare();
  ~FakeShare();
  void SendText(const std::string& items);  // to the console, which has connected by then
  std::string ReceiveCommand();             // empty when none comes

 private:
  share::OwnedDescriptor telemetry_listener_;
  share::OwnedDescriptor control_listener_;
  share::OwnedDescriptor consumer_;
};

// The number in a unit's message; 0 when it is none, or not as it was published.
std::uint32_t UnitNumber(const Frame& frame);
bool HasFlag(const Frame& frame, std::uint8_t flag);

}  // namespace kestrelbridge::test
