// A small but whole main application: counts the live video, prints the camera's telemetry, and
// starts a recording when told to. Needs C++17 and the header frame_block.h.
//
//   c++ -std=c++17 -I include docs/example/main_application.cpp -o main_application -lrt
//   ./main_application [seconds] [record]

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "kestrelbridge/frame_block.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint16_t kTelemetryPort = 5000;  // the daemon's --dst-port
constexpr std::size_t kLongestRecord = 1300;

// Record types: the first byte tells a text, the first two tell the others apart.
constexpr std::uint8_t kTextRecord = 0x07;
constexpr std::size_t kStatusRecordSize = 28;
constexpr std::size_t kHistogramRecordSize = 66;

// Telemetry comes in here. Returns -1 when the port is taken.
int OpenTelemetrySocket() {
  const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(kTelemetryPort);
  local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (descriptor == -1 ||
      bind(descriptor, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
    std::perror("telemetry port 5000");
    return -1;
  }
  return descriptor;
}

// The value of one key in a text record: key=value pairs, each ended by a comma.
std::string ValueOf(std::string_view text, std::string_view key) {
  while (!text.empty()) {
    const std::string_view item = text.substr(0, text.find(','));
    const std::size_t equals = item.find('=');
    if (equals != std::string_view::npos && item.substr(0, equals) == key) {
      return std::string(item.substr(equals + 1));
    }
    text.remove_prefix(item.size() < text.size() ? item.size() + 1 : text.size());
  }
  return {};
}

// Where commands go: the address that telemetry comes from.
struct Daemon {
  sockaddr_in address{};
  bool known = false;
};

void SendCommand(int descriptor, const Daemon& daemon, const char* json) {
  const std::string command = std::string("!") + json;
  sendto(descriptor, command.data(), command.size(), 0,
         reinterpret_cast<const sockaddr*>(&daemon.address), sizeof daemon.address);
}

void TakeTelemetry(int descriptor, Daemon& daemon) {
  char record[kLongestRecord];
  sockaddr_in sender{};
  socklen_t sender_size = sizeof sender;
  for (;;) {
    const ssize_t length = recvfrom(descriptor, record, sizeof record, 0,
                                    reinterpret_cast<sockaddr*>(&sender), &sender_size);
    if (length <= 0) {
      return;
    }
    daemon.address = sender;
    daemon.known = true;
    const auto size = static_cast<std::size_t>(length);
    if (static_cast<std::uint8_t>(record[0]) == kTextRecord) {
      const std::string_view text(record + 1, size - 1);
      std::printf("camera: %s, %s mode, %s, ISO %s, battery %s %%\n",
                  ValueOf(text, "camera_model").c_str(), ValueOf(text, "camera_mode").c_str(),
                  ValueOf(text, "format").c_str(), ValueOf(text, "iso").c_str(),
                  ValueOf(text, "battery_level").c_str());
    } else if (size == kHistogramRecordSize) {
      std::printf("histogram: first bin %u\n", static_cast<unsigned char>(record[2]));
    } else if (size == kStatusRecordSize) {
      // Bytes 9 to 11 are the camera's status bytes.
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::atoi(argv[1]) : 10;
  bool record_is_due = argc > 2 && std::strcmp(argv[2], "record") == 0;
  const int telemetry = OpenTelemetrySocket();
  if (telemetry == -1) {
    return 1;
  }
  Daemon daemon;
  kestrelbridge::FrameBlockMapping mapping;
  const Clock::time_point end = Clock::now() + std::chrono::seconds(seconds);
  while (!mapping.Open()) {  // the daemon may come later than we do
    if (Clock::now() >= end) {
      std::perror("frame ring");
      return 1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  kestrelbridge::FrameBlockReader reader(mapping.data());
  std::vector<std::uint8_t> unit;
  while (Clock::now() < end) {
    while (reader.Next(unit)) {
      // Here a decoder would take unit.data(), unit.size(): one access unit, Annex B.
    }
    TakeTelemetry(telemetry, daemon);
    if (daemon.known && record_is_due) {
      SendCommand(telemetry, daemon, R"({"cmd":"record","param":"start"})");
      record_is_due = false;
    }
    reader.Wait(std::chrono::milliseconds(20));  // for a unit; telemetry may wait that long
  }
  const auto& counters = reader.counters();
  std::printf("%llu units, %llu bytes, %llu lost\n",
              static_cast<unsigned long long>(counters.units),
              static_cast<unsigned long long>(counters.bytes),
              static_cast<unsigned long long>(counters.lost));
  close(telemetry);
  return 0;
}
