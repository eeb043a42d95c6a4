// kestrelctl rc: the process that reads the remote control.
#pragma once

#include <CLI/CLI.hpp>

namespace kestrelbridge {

void AddRcCommand(CLI::App& app);

}  // namespace kestrelbridge
