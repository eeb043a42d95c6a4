// kestrelctl demo: the whole system at work, without a camera.
#pragma once

#include <CLI/CLI.hpp>

namespace kestrelbridge::tools {

void AddDemoSubcommand(CLI::App& app);

}  // namespace kestrelbridge::tools
