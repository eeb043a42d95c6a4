// kestrelctl watch: the live picture in a window.
#pragma once

#include <CLI/CLI.hpp>

namespace kestrelbridge::tools {

void AddWatchSubcommand(CLI::App& app);

}  // namespace kestrelbridge::tools
