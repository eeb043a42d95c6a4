// kestrelctl command: the main application, for one command.
#pragma once

#include <CLI/CLI.hpp>

namespace kestrelbridge {

void AddCommandCommand(CLI::App& app);

}  // namespace kestrelbridge
