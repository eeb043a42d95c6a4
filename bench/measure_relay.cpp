#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>

#include "bridge/redirect_rule.h"
#include "camera/packet_format.h"
#include "measurements.h"
#include "subjects.h"
#include "tools/common/tool_error.h"
#include "tools/common/udp_socket.h"
#include "tools/wire/camera_wire.h"

namespace kestrelbridge::bench {
namespace {

constexpr std::uint16_t kPhonePort = 9020;
constexpr std::uint16_t kSocatPort = 9021;
constexpr int kDatagrams = 2000;
constexpr std::chrono::microseconds kPeriod{700};
constexpr std::chrono::milliseconds kGivenUp{200};
constexpr int kPhonePeriod = 200;  // datagrams between two of the phone
constexpr double kMicrosecondsPerSecond = 1e6;

// The phone talks, so that the daemon knows where it is.
void Talk(const tools::UdpSocket& phone) {
  const ConnectionRequest request = BuildConnectionRequest();
  if (!phone.Send(request, {.address = Loopback(), .port = kPhoneAppPort})) {
    throw tools::ToolError("the phone cannot send");
  }
}

// True once that very datagram is there; what comes late of an earlier one does not count.
bool Receive(const tools::UdpSocket& phone, std::span<const std::uint8_t> sent) {
  static std::array<std::uint8_t, tools::kMaxDatagramSize> buffer;  // not zeroed anew at every look
  std::span<const std::uint8_t> datagram;
  UdpPeer from;
  return phone.Receive(buffer, datagram, from) && std::ranges::equal(datagram, sent);
}

// One datagram after the other, each when the one before has long arrived: from right before it is
// sent until the phone's socket has handed it out.
std::vector<double> MeasureOne(Subject& subject, DatagramStream& stream, bool phone_talks) {
  const tools::UdpSocket phone({.address = Loopback(), .port = kPhonePort});
  std::vector<double> samples;
  Clock::time_point due = Clock::now();
  for (int i = -kPhonePeriod; i < kDatagrams; ++i, due += kPeriod) {
    if (phone_talks && i % kPhonePeriod == 0) {
      Talk(phone);
    }
    WaitUntil(due, false);
    subject.camera.Drain();
    const auto datagram =
        stream.datagrams[static_cast<std::size_t>(i + kPhonePeriod) % stream.datagrams.size()];
    const Clock::time_point sent = Clock::now();
    subject.camera.Send(datagram);
    Clock::time_point now = sent;
    for (bool arrived = false; !arrived && now - sent < kGivenUp; now = Clock::now()) {
      arrived = Receive(phone, datagram);
    }
    if (i >= 0) {  // those before are start-up
      samples.push_back(Seconds(now - sent).count() * kMicrosecondsPerSecond);
    }
  }
  return samples;
}

std::unique_ptr<Subject> StartBridge(const Setting& setting) {
  auto subject = StartDaemon(setting);
  AwaitUdpPort(kPhoneAppPort);
  return subject;
}

std::unique_ptr<Subject> StartSocat(const Setting& setting) {
  auto subject = std::make_unique<Subject>();
  subject->program = std::make_unique<Program>(
      ProgramStart{.command = {"socat", "-b", "65536",
                               "UDP4-LISTEN:" + std::to_string(kSocatPort) + ",bind=127.0.0.1",
                               "UDP4-SENDTO:127.0.0.1:" + std::to_string(kPhonePort)},
                   .core = setting.cores.subject});
  AwaitUdpPort(kSocatPort);
  subject->camera.SetPeer({.address = Loopback(), .port = kSocatPort});
  return subject;
}

}  // namespace

Findings MeasureRelay(const Setting& setting) {
  DatagramStream stream = MakeCameraStream(setting.clip);
  Latencies daemon, echo, socat;
  for (int repetition = 1; repetition <= setting.repetitions; ++repetition) {
    std::fprintf(stderr, "    relay, repetition %d of %d\n", repetition, setting.repetitions);
    echo.Add(MeasureOne(*StartEcho(setting, kPhonePort), stream, false));
    daemon.Add(MeasureOne(*StartBridge(setting), stream, true));
    socat.Add(MeasureOne(*StartSocat(setting), stream, false));
  }
  return {
      .rows =
          {CompareLatencies("relay, camera to phone, p50", "bare echo", daemon.p50, echo.p50, 1.3),
           CompareLatencies("relay, camera to phone, p99", "bare echo", daemon.p99, echo.p99, 1.3),
           CompareLatencies("relay, camera to phone, p50", "socat", daemon.p50, socat.p50, 1.0),
           CompareLatencies("relay, camera to phone, p99", "socat", daemon.p99, socat.p99, 1.0)},
      .notes = {FormatDistribution("Relay, camera to phone, kestrelbridge", daemon.all),
                FormatDistribution("Relay, camera to phone, bare echo", echo.all),
                FormatDistribution("Relay, camera to phone, socat", socat.all)}};
}

}  // namespace kestrelbridge::bench
