// kestrelctl video: reads the frame ring, as the main application does.
#pragma once

#include <CLI/CLI.hpp>

namespace kestrelbridge::tools {

void AddVideoSubcommand(CLI::App& app);

}  // namespace kestrelbridge::tools
