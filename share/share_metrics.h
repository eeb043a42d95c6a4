// The share's counters as users see them.
#pragma once

#include <cstddef>
#include <string>

#include "share/share_counters.h"

namespace kestrelbridge::share {

// In Prometheus text format. docs/metrics.md tells what each line means. Pure function.
std::string ShareMetricsText(const ShareCounters& counters, std::size_t consumers);

}  // namespace kestrelbridge::share
