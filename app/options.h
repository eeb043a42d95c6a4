// The daemon's settings and its command line.
#pragma once

#include <cstdint>

namespace kestrelbridge {

// Written by the main thread before any other thread exists, only read afterwards. The text fields
// are NUL-padded.
struct Config {
  char iface[10] = "wifi0";  // for log lines only; no socket is bound to it
  char camera_host[22] = "192.168.2.1";
  std::int32_t camera_port = 9004;
  char destination_host[20] = "127.0.0.1";  // the main application
  std::int32_t destination_port = 5000;
  std::uint8_t verbose = 0;
  bool low_latency = false;  // a unit is published as soon as it is whole
};

// The process's one configuration, with its defaults until ParseOptions has run.
Config& GetConfig();

// Reads the command line into the configuration. Options may repeat, the last one wins. Returns 0,
// or 1 after it printed the usage text: asked for, or because an option is unknown, lacks its
// argument or has a text that is too long for its field. Main thread.
[[nodiscard]] int ParseOptions(int argc, char** argv);

// Writes the usage text to standard error.
void PrintUsage();

}  // namespace kestrelbridge
