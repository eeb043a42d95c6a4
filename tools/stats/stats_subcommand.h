// kestrelctl stats: what the daemon counts.
#pragma once

#include <CLI/CLI.hpp>

namespace kestrelbridge::tools {

void AddStatsSubcommand(CLI::App& app);

}  // namespace kestrelbridge::tools
