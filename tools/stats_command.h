// kestrelctl stats: what the daemon counts.
#pragma once

#include <CLI/CLI.hpp>

namespace kestrelbridge {

void AddStatsCommand(CLI::App& app);

}  // namespace kestrelbridge
