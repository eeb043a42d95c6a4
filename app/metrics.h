// The counters as a file: Prometheus text format, for node_exporter's textfile collector,
// `kestrelctl stats` and whoever can read.
#pragma once

#include <ctime>
#include <string>

namespace kestrelbridge {

// All counters as they stand, the kernel's drops at our sockets and the state of the links.
// `start` is when the daemon started. Main thread.
std::string MetricsText(std::time_t start);

// Writes them to kMetricsPath, whole or not at all. Where that is not possible nothing is said: the
// file is a convenience, and the next second may do better. Main thread, once a second.
void WriteMetrics(std::time_t start);

}  // namespace kestrelbridge
