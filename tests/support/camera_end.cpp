#include "support/camera_end.h"

#include <algorithm>

#include "base/byte_order.h"
#include "camera/camera_link.h"
#include "camera/packet_format.h"
#include "state/camera_state.h"
#include "support/camera_datagrams.h"
#include "tools/common/foreign_text.h"
#include "tools/wire/packet_check.h"

namespace kestrelbridge::test {
namespace {

constexpr std::uint16_t kLastReceived = 0x0102;

std::string HexWithoutSeal(std::span<const std::uint8_t> frame) {
  const auto sealed = frame.first(frame.size() - kFrameCrc16Size);
  return tools::HexText(sealed.first(kFrameSequenceOffset), " ", tools::kUpperHex).substr(1) +
         tools::HexText(sealed.subspan(kFrameSequenceOffset + 2), " ", tools::kUpperHex);
}

}  // namespace

CameraEnd::CameraEnd() {
  BeCameraAt(camera_);
  GetCameraLink().last_received_sequence = kLastReceived;
  ClearCameraState();
  testing::internal::CaptureStderr();
}

void CameraEnd::TearDown() {
  EXPECT_EQ(SentFrames(), Frames{}) << "a command that no test expected";
  testing::internal::GetCapturedStderr();
}

// On the loopback a datagram is there when the call that sent it returns: no need to wait.
Frames CameraEnd::SentFrames() {
  Frames frames;
  while (const auto packet = camera_.Receive(std::chrono::milliseconds{0})) {
    const tools::CheckedPacket checked = tools::CheckPacket(packet->bytes);
    if (checked.type != tools::PacketType::kCommand) {
      ADD_FAILURE() << "packet of " << packet->bytes.size() << " bytes, " << checked.fault;
      continue;
    }
    EXPECT_EQ(LoadLe16(checked.frame, kFrameSequenceOffset), next_sequence_++);
    EXPECT_EQ(LoadLe16(packet->bytes, kWrapperSequenceOffset), LastReceivedSequence());
    frames.push_back(HexWithoutSeal(checked.frame));
  }
  return frames;
}

std::string CameraEnd::Log() {
  std::string log = testing::internal::GetCapturedStderr();
  testing::internal::CaptureStderr();
  return log;
}

}  // namespace kestrelbridge::test
