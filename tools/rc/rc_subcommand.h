// kestrelctl rc: the process that reads the remote control.
#pragma once

#include <CLI/CLI.hpp>

namespace kestrelbridge::tools {

void AddRcSubcommand(CLI::App& app);

}  // namespace kestrelbridge::tools
