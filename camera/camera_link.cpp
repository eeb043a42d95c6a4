#include "camera/camera_link.h"

namespace kestrelbridge {

CameraLink& GetCameraLink() {
  static constinit CameraLink link;
  return link;
}

std::uint16_t TakePacketNumber() {
  // Only uniqueness counts; no other memory hangs on it.
  return GetCameraLink().outgoing_packet_counter.fetch_add(1, std::memory_order_relaxed);
}

std::uint16_t LastReceivedSequence() {
  return GetCameraLink().last_received_sequence.load(std::memory_order_relaxed);
}

bool CameraDataReceived() {
  return GetCameraLink().command_data_received.load(std::memory_order_acquire);
}

int SendToCamera(std::span<const std::uint8_t> data) {
  const CameraLink& link = GetCameraLink();
  if (!IsOpen(link.endpoint)) {
    link.endpoint.counters->send_failures.Add();
    return -1;
  }
  return SendTo(link.endpoint, data, link.host, static_cast<std::uint16_t>(link.port));
}

}  // namespace kestrelbridge
