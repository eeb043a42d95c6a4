#include "camera/frame_sender.h"

#include "camera/camera_link.h"
#include "camera/packet_format.h"

namespace kestrelbridge {

int SendCameraFrame(std::span<std::uint8_t> frame) {
  SealCommandFrame(frame, TakePacketNumber());
  const CommandPacket packet = BuildCommandPacket(frame, LastReceivedSequence());
  return SendToCamera(std::span(packet).first(kSentWrapperSize + frame.size()));
}

}  // namespace kestrelbridge
