#include "video/camera_stream.h"

#include <atomic>

#include "base/byte_order.h"
#include "base/counters.h"
#include "camera/camera_link.h"
#include "camera/packet_format.h"
#include "video/command_data.h"
#include "video/unit_assembly.h"

namespace kestrelbridge {
namespace {

// Written by the camera's receive thread, read by the camera, telemetry and remote-control threads.
// Release and acquire: who sees the flag also sees the sequence of the datagram that set it.
constinit std::atomic<bool> command_data_received{false};

}  // namespace

int ProcessCameraDatagram(std::span<const std::uint8_t> datagram) {
  Counters& counters = GetCounters();
  if (datagram.size() < kWrapperSequenceEnd) {
    counters.short_datagrams.Add();
    return 0;
  }
  GetCameraLink().last_received_sequence.store(LoadLe16(datagram, kWrapperSequenceOffset),
                                               std::memory_order_relaxed);
  switch (datagram[kWrapperKindOffset]) {
    case kKindVideo:
      counters.video_datagrams.Add();
      TakeVideoDatagram(datagram);
      break;
    case kKindCommandData:
      counters.command_data_datagrams.Add();
      command_data_received.store(true, std::memory_order_release);
      if (datagram.size() > kReceivedWrapperSize) {
        GatherCommandData(datagram.subspan(kReceivedWrapperSize));
      }
      break;
    default:
      counters.ignored_datagrams.Add();
      break;
  }
  return 0;
}

bool CameraDataReceived() { return command_data_received.load(std::memory_order_acquire); }

}  // namespace kestrelbridge
