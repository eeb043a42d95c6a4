// kestrelctl telemetry: shows what the main application is told.
#pragma once

#include <CLI/CLI.hpp>

namespace kestrelbridge {

void AddTelemetryCommand(CLI::App& app);

}  // namespace kestrelbridge
