// kestrelctl camera: the simulated camera.
#pragma once

#include <CLI/CLI.hpp>

namespace kestrelbridge {

void AddCameraCommand(CLI::App& app);

}  // namespace kestrelbridge
