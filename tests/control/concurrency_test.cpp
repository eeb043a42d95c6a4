// All who send to the camera at once, at full speed.

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <set>
#include <thread>
#include <vector>

#include "base/byte_order.h"
#include "camera/camera_link.h"
#include "camera/packet_format.h"
#include "control/app_commands.h"
#include "control/remote_control.h"
#include "session/camera_session.h"
#include "session/camera_stream.h"
#include "state/camera_state.h"
#include "support/camera_datagrams.h"
#include "support/camera_end.h"
#include "tools/wire/packet_check.h"

namespace kestrelbridge::test {
namespace {

constexpr int kRounds = 2'000;

using Senders = CameraEnd;

TEST_F(Senders, NeverShareASequenceOrDamageAPacket) {
  ProcessCameraDatagram(CommandDataDatagram(1, EmptyCommandData()));
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
      const tools::CheckedPacket checked = tools::CheckPacket(packet->bytes);
      const bool is_new = checked.frame.empty() ||
                          sequences.insert(LoadLe16(checked.frame, kFrameSequenceOffset)).second;
      damaged += checked.type == tools::PacketType::kBad || !is_new ? 1 : 0;
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
}  // namespace kestrelbridge::test
