#include "app/options.h"

#include <getopt.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <span>

#include "base/log.h"

namespace kestrelbridge {
namespace {

constexpr char kShortOptions[] = "i:h:p:d:s:v?";
constexpr int kLowLatency = 'Z' + 1;  // no letter: it has a long form only
constexpr std::array<option, 9> kLongOptions = {{
    {"iface", required_argument, nullptr, 'i'},
    {"port", required_argument, nullptr, 'p'},
    {"host", required_argument, nullptr, 'h'},
    {"dst-host", required_argument, nullptr, 'd'},
    {"dst-port", required_argument, nullptr, 's'},
    {"help", no_argument, nullptr, '?'},
    {"verbose", no_argument, nullptr, 'v'},
    {"low-latency", no_argument, nullptr, kLowLatency},
    {nullptr, 0, nullptr, 0},
}};

// Copies the text, NUL-padded. A text that does not fit is refused rather than cut: half an address
// would be another camera's.
bool CopyText(const char* option_name, const char* text, std::span<char> field) {
  const std::size_t longest = field.size() - 1;
  const std::size_t length = std::strlen(text);
  if (length > longest) {
    Log("Option --%s takes at most %zu characters, \"%s\" has %zu\n", option_name, longest, text,
        length);
    return false;
  }
  std::ranges::fill(field, '\0');
  std::copy_n(text, length, field.begin());
  return true;
}

// Leading digits only, no range check, 0 for a text without digits.
std::int32_t ToNumber(const char* text) {
  return static_cast<std::int32_t>(std::strtoll(text, nullptr, 10));
}

// Takes one option as getopt_long reports it. False when the usage text is due.
bool ApplyOption(int option_letter, Config& config) {
  switch (option_letter) {
    case 'i':
      return CopyText("iface", optarg, config.iface);
    case 'h':
      return CopyText("host", optarg, config.camera_host);
    case 'd':
      return CopyText("dst-host", optarg, config.destination_host);
    case 'p':
      config.camera_port = ToNumber(optarg);
      return true;
    case 's':
      config.destination_port = ToNumber(optarg);
      return true;
    case 'v':
      config.verbose = 1;
      return true;
    case kLowLatency:
      config.low_latency = true;
      return true;
    case '?':
      return false;
    default:
      return true;
  }
}

}  // namespace

Config& GetConfig() {
  static constinit Config config;
  return config;
}

int ParseOptions(int argc, char** argv) {
  int option_letter = 0;
  while ((option_letter = getopt_long(argc, argv, kShortOptions, kLongOptions.data(), nullptr)) !=
         -1) {
    if (!ApplyOption(option_letter, GetConfig())) {
      PrintUsage();
      return 1;
    }
  }
  return 0;
}

void PrintUsage() {
  Log("DJI Pocket Osmo Wi-Fi receiver\n"
      "Usage:\n"
      "-i | --iface=<interface> default wifi0\n"
      "-h | --host=<pocketosmo_host> default 192.168.2.1\n"
      "-p | --port=<pocketosmo_port> default 9004\n"
      "-d | --dst-host=<destination_host>\n"
      "-s | --dst-port=<destination_port>\n"
      "-v | --verbose\n"
      "-? | --help - show this help\n");
}

}  // namespace kestrelbridge
