// kestrelctl camera: the simulated camera.
#pragma once

#include <CLI/CLI.hpp>

namespace kestrelbridge::tools {

void AddCameraSubcommand(CLI::App& app);

}  // namespace kestrelbridge::tools
