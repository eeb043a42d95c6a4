#include "camera/command_frame_sender.h"

#include "camera/camera_link.h"
#include "camera/packet_format.h"

namespace kestrelbridge {
namespace {

// A thread sends the commands of one source only, and each source has one thread.
constinit thread_local OwnedCounter* frames_sent = &GetCounters().app_command_frames;

}  // namespace

void CountCommandFramesIn(OwnedCounter& counter) { frames_sent = &counter; }

int SendCameraFrame(std::span<std::uint8_t> frame) {
  SealCommandFrame(frame, TakePacketNumber());
  const CommandPacket packet = BuildCommandPacket(frame, LastReceivedSequence());
  const int sent = SendToCamera(std::span(packet).first(kSentWrapperSize + frame.size()));
  if (sent != -1) {
    frames_sent->Add();
  }
  return sent;
}

}  // namespace kestrelbridge
