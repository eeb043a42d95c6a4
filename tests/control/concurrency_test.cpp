// All who send to the camera at once, at full speed.

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/byte_order.h"
#include "camera/camera_link.h"
#include "camera/camera_session.h"
#include "camera/frame_scanner.h"
#include "camera/packet_format.h"
#include "control/app_commands.h"
#include "control/camera_end.h"
#include "control/remote_control.h"
#include "state/camera_state.h"
#include "support/camera_datagrams.h"
#include "video/camera_stream.h"

namespace kestrelbridge {
namespace {

constexpr int kRounds = 2'000;

// True when every part of the packet fits every other. Adds the frame's sequence to `sequences`,
// false when it is there already.
bool IsWholeAndNew(const Bytes& packet, std::set<std::uint16_t>& sequences) {
  if (packet.size() < kSentWrapperSize || LoadLe16(packet, 0) != (packet.size() ^ 0x8000) ||
      packet[kWrapperCheckOffset] != WrapperCheck(packet) ||
      LoadLe16(packet, kWrapperFrameLengthOffset) != packet.size() - kSentWrapperSize) {
    return false;
  }
  const std::uint16_t received = LoadLe16(packet, kWrapperSequenceOffset);
  const auto echo_distance =
      static_cast<std::uint16_t>(received - LoadLe16(packet, kWrapperEchoAOffset));
  const auto frame = std::span(packet).subspan(kSentWrapperSize);
  if (frame.empty()) {
    return echo_distance == 0 && LoadLe16(packet, 16) == received;  // an acknowledgement
  }
  return CommandFrameAt(frame).size() == frame.size() &&
         echo_distance == (frame[kFrameFlagsOffset] == 0 ? 0 : 8) &&
         sequences.insert(LoadLe16(frame, kFrameSequenceOffset)).second;
}

using Senders = CameraEnd;

TEST_F(Senders, NeverShareASequenceOrDamageAPacket) {
  ReceiveCameraData();
  const Bytes unit = {0, 0, 0, 1, 0x41, 1, 2, 3};
  ProcessCameraDatagram(UnitHeaderDatagram(0, 8, unit));
  GetCameraLink().outgoing_packet_counter = 0;
  UpdateCameraState([](CameraState& state) { state.wb_temp_set = 5600; });
  RcValues values;
  RcMemory memory;
  const std::vector<std::function<void(int)>> senders = {
      [](int) { DispatchAppCommand(R"(!{"cmd":"wb","param":"custom","value":"5600"})"); },
      [&](int round) {
        values.channels[kRcWhiteBalanceSwitch] = round % 2 == 0 ? 1 : -1;
        HandleRcValues(values, memory);
      },
      [](int) { SendCameraHeartbeat(); },
      [&](int round) {
        ProcessCameraDatagram(UnitHeaderDatagram(static_cast<std::uint16_t>(round), 8, unit));
        UpdateCameraState([round](CameraState& state) {
          state.camera_mode_code = static_cast<std::uint8_t>(round % 2);
          state.wb_temp = static_cast<float>(2000 + round);
        });
      },
  };

  std::atomic<int> at_work = static_cast<int>(senders.size());
  std::vector<std::thread> threads;
  threads.reserve(senders.size());
  for (const auto& sender : senders) {
    threads.emplace_back([&sender, &at_work] {
      for (int round = 0; round < kRounds; ++round) {
        sender(round);
      }
      --at_work;
    });
  }
  std::set<std::uint16_t> sequences;
  int damaged = 0;
  int packets = 0;
  for (bool last_look = false; !last_look;) {
    last_look = at_work == 0;  // before the socket is emptied
    while (const auto packet = camera_.Receive(std::chrono::milliseconds{1})) {
      ++packets;
      damaged += IsWholeAndNew(packet->bytes, sequences) ? 0 : 1;
    }
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(damaged, 0) << "of " << packets;
  EXPECT_GT(packets, kRounds);
  EXPECT_EQ(GetCameraLink().outgoing_packet_counter, senders.size() * kRounds);
}

}  // namespace
}  // namespace kestrelbridge
