// The daemon's counters, for people and for programs. Pure.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "tools/common/metrics_reading.h"
#include "tools/common/text_layout.h"

namespace kestrelbridge::tools {

// Lines for people: a title, and a line for each counter; two lines where the width is less than
// that takes. With hide_zeros, counters that stand at 0 are left out, but for their number.
std::vector<std::string> MetricsLines(const MetricsReading& now,
                                      const std::optional<MetricsReading>& before,
                                      MetricsReading::Time clock, bool hide_zeros,
                                      std::size_t width = kUsualWidth);

// One JSON object, without a line end.
std::string MetricsJson(const MetricsReading& now, const std::optional<MetricsReading>& before);

}  // namespace kestrelbridge::tools
