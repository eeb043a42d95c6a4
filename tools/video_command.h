// kestrelctl video: reads the frame ring, as the main application does.
#pragma once

#include <CLI/CLI.hpp>

namespace kestrelbridge {

void AddVideoCommand(CLI::App& app);

}  // namespace kestrelbridge
