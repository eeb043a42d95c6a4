#include "app/startup.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <span>
#include <string_view>

#include "app/main_app_link.h"
#include "app/metrics.h"
#include "app/options.h"
#include "app/service_watchdog.h"
#include "base/capabilities.h"
#include "base/log.h"
#include "base/process_end.h"
#include "base/run_paths.h"
#include "base/standard_descriptors.h"
#include "base/text_file.h"
#include "bridge/phone_app_bridge.h"
#include "bridge/redirect_rule.h"
#include "session/camera_session.h"
#include "state/camera_state.h"
#include "video/frame_buffers.h"
#include "video/unit_assembly.h"

namespace kestrelbridge {
namespace {

constexpr useconds_t kStartPauseUs = 1'000'000;
constexpr useconds_t kMainLoopPeriodUs = 1'000'000;
constexpr std::size_t kBoardModelSize = 100;     // 99 characters and a NUL
constexpr std::size_t kInterfaceNameSize = 10;   // 9 characters and a NUL
constexpr std::size_t kInterfaceFileSize = 100;  // of the file, only to say what was cut

void AnnounceBoard() {
  Log("\nOsmo Action Wi-Fi client\n");
  char model[kBoardModelSize];
  ReadTextFile(kBoardModelPath, model);
  Log("Board model: %s\n", model);
  Log("Board supported\n");
  WriteTextFile(kBoardSupportedPath, "1");
}

// Packets go to the low 16 bits of a port; say so where that is not what was asked for.
void ReportPort(const char* option_name, std::int32_t port) {
  const auto used = static_cast<std::uint16_t>(port);
  if (used == 0) {
    Log("Option --%s=%d is no UDP port, nothing can be sent there\n", option_name, port);
  } else if (used != port) {
    Log("Option --%s=%d is no UDP port, packets go to port %u\n", option_name, port,
        static_cast<unsigned>(used));
  }
}

void ReportHost(const char* option_name, const char* host) {
  in_addr address{};
  if (inet_aton(host, &address) == 0) {
    Log("Option --%s=%s is no dotted-decimal address, nothing can be sent there\n", option_name,
        host);
  }
}

void ReadOptions(int argc, char** argv) {
  if (ParseOptions(argc, argv) != 0) {
    EndProcess(ExitCode::kUsageOrLink);
  }
  if (GetConfig().destination_port == 0) {
    EndProcess(ExitCode::kUsageOrLink, "Destination host or port not set");
  }
  ReportHost("host", GetConfig().camera_host);
  ReportPort("port", GetConfig().camera_port);
  ReportHost("dst-host", GetConfig().destination_host);
  ReportPort("dst-port", GetConfig().destination_port);
}

void ConnectMainApplication(const Config& config) {
  if (config.verbose != 0) {
    Log("Using interface %s\n", config.iface);
    Log("Init connection to main application %s:%d\n", config.destination_host,
        config.destination_port);
  }
  const bool connected = InitMainAppLink(config.destination_host, config.destination_port) == 0;
  if (config.verbose != 0) {
    Log("%s\n", connected ? "Done" : "Failed");
  }
  if (!connected) {
    EndProcess(ExitCode::kUsageOrLink);
  }
}

void SetUpFrameMemory() {
  Log("Init telemetry buffer\n");
  if (InitFrameBuffers() != 0) {
    EndProcess(ExitCode::kFrameMemory, "Failed to init telemetry buffer");
  }
}

void ConnectCamera(const Config& config) {
  if (config.verbose != 0) {
    Log("Init connection to camera %s:%d via iface %s\n", config.camera_host, config.camera_port,
        config.iface);
  }
  if (InitCameraLink(config.camera_host, config.camera_port) != 0) {
    EndProcess(ExitCode::kUsageOrLink);
  }
}

// Reads the access point's interface name. Line ends become blanks, which a name may end in.
void ReadInterfaceName(std::span<char, kInterfaceNameSize> name) {
  char content[kInterfaceFileSize];
  ReadTextFile(kAccessPointInterfacePath, content);
  std::ranges::copy(std::string_view(content).substr(0, name.size() - 1), name.begin());
  if (const std::size_t length = std::strcspn(content, "\r\n"); length >= name.size()) {
    Log("Interface name \"%.*s\" of %s is cut to \"%s\": it may have %zu characters\n",
        static_cast<int>(length), content, kAccessPointInterfacePath, name.data(), name.size() - 1);
  }
  for (char& character : name) {
    if (character == '\0') {
      break;
    }
    if (character == '\n' || character == '\r') {
      character = ' ';
    }
  }
}

void BridgePhoneApp(const Config& config) {
  char access_point_interface[kInterfaceNameSize] = {};
  ReadInterfaceName(access_point_interface);
  if (config.verbose != 0) {
    Log("Init data bridge server for DJI MIMO via iface %s\n", access_point_interface);
  }
  if (InitPhoneAppBridge(config.camera_host, config.camera_port, access_point_interface) != 0) {
    // The daemon goes on: the picture does not depend on it.
    const int error = errno;
    Log("UDP port %u cannot be had, so no phone app: %s%s\n", unsigned{kPhoneAppPort},
        std::strerror(error), error == EADDRINUSE ? ", see ss -ulnp" : "");
  }
}

}  // namespace

void RunDaemon(int argc, char** argv) {
  OccupyStandardDescriptors();
  OpenLog();
  const std::time_t start = std::time(nullptr);
  std::signal(SIGPIPE, SIG_IGN);  // the picture outlives whoever read our log
  std::signal(SIGXFSZ, SIG_IGN);  // a write beyond the user's limit fails like any other
  AnnounceBoard();
  ReadOptions(argc, argv);
  usleep(kStartPauseUs);
  const Config& config = GetConfig();
  ConnectMainApplication(config);
  ClearCameraState();
  SetUpFrameMemory();
  PublishUnitsWhenWhole(config.low_latency);
  ConnectCamera(config);
  BridgePhoneApp(config);
  StartMetrics(start);  // without them all else works
  DropNetworkCapabilities();
  for (;;) {  // nothing in it may ever wait for anything but the time
    PhoneAppBridgeTick();
    FeedServiceWatchdog();
    usleep(kMainLoopPeriodUs);
  }
}

}  // namespace kestrelbridge
