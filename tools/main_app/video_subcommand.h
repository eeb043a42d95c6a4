// kestrelctl video: reads the frame ring, as the main application does.
#pragma once

#include <CLI/CLI.hpp>

namespace kestrelbridge::tools {

void AddVideoSubcommand(CLI::App& app);

// What `kestrelctl video` does by default, until the pipe is closed or a signal comes; true for the
// latter.
bool StreamVideoToStandardOutput();

}  // namespace kestrelbridge::tools
