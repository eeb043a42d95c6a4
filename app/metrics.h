// The counters as a file: Prometheus text format, for node_exporter's textfile collector,
// `kestrelctl stats` and whoever can read.
#pragma once

#include <ctime>
#include <string>

namespace kestrelbridge {

// All counters as they stand, the kernel's drops at our sockets and the state of the links.
// `start` is when the daemon started. Any thread.
std::string MetricsText(std::time_t start);

// Starts the thread that writes them to kMetricsPath once a second, whole or not at all. Where that
// is not possible nothing is said: the file is a convenience, and the next second may do better. It
// is a thread of its own because a file may keep it waiting, which must not stop any watchdog.
// Returns 0, or -1 when there is no thread to be had. Start-up, once.
int StartMetrics(std::time_t start);

}  // namespace kestrelbridge
