// kestrelctl command: the main application, for one command.
#pragma once

#include <CLI/CLI.hpp>

namespace kestrelbridge::tools {

void AddCommandSubcommand(CLI::App& app);

}  // namespace kestrelbridge::tools
