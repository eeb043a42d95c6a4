#include "session/camera_stream.h"

#include "base/byte_order.h"
#include "base/counters.h"
#include "camera/camera_link.h"
#include "camera/packet_format.h"
#include "state/command_data.h"
#include "video/unit_assembly.h"

namespace kestrelbridge {

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
      GetCameraLink().command_data_received.store(true, std::memory_order_release);
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

}  // namespace kestrelbridge
