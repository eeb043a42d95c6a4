#include "session/camera_session.h"

#include <unistd.h>

#include <cstdio>

#include "base/counters.h"
#include "base/log.h"
#include "base/process_end.h"
#include "base/thread.h"
#include "bridge/phone_app_bridge.h"
#include "camera/camera_link.h"
#include "camera/packet_format.h"
#include "net/udp_endpoint.h"
#include "session/camera_stream.h"

namespace kestrelbridge {
namespace {

constexpr useconds_t kHeartbeatPeriodUs = 1'000'000;

void OnCameraFound(const char* /*sender_address*/) { Log("Camera connection found\n"); }

void OnCameraLost() { EndProcess(ExitCode::kUsageOrLink, "Camera connection lost"); }

void* CameraThread(void* /*argument*/) {
  for (;;) {
    CheckLink(GetCameraLink().endpoint);
    SendCameraHeartbeat();
    usleep(kHeartbeatPeriodUs);
  }
}

}  // namespace

int InitCameraLink(const char* host, std::int32_t port) {
  CameraLink& link = GetCameraLink();
  std::snprintf(link.host, sizeof link.host, "%s", host);
  link.port = port;
  if (Open(link.endpoint, 0) != 0) {
    return -1;
  }
  link.endpoint.on_datagram = OnCameraDatagram;
  link.endpoint.on_found = OnCameraFound;
  link.endpoint.on_lost = OnCameraLost;
  AttachBuffer(link.endpoint, link.receive_buffer);
  return StartThread(&link.thread, "camera", CameraThread, nullptr);
}

void SendCameraHeartbeat() {
  if (!CameraDataReceived()) {
    if (SendToCamera(BuildConnectionRequest()) != -1) {
      GetCounters().connection_requests.Add();
    }
    TakePacketNumber();
    return;
  }
  if (!PhoneAppConnected() &&
      SendToCamera(BuildKeepalive(LastReceivedSequence(), TakePacketNumber())) != -1) {
    GetCounters().keepalives.Add();
  }
}

void OnCameraDatagram(std::span<const std::uint8_t> datagram, const char* /*sender_address*/,
                      std::uint16_t /*sender_port*/) {
  ProcessCameraDatagram(datagram);
  ForwardToPhoneApp(datagram);
}

}  // namespace kestrelbridge
