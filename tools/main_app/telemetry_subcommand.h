// kestrelctl telemetry: shows what the main application is told.
#pragma once

#include <CLI/CLI.hpp>

namespace kestrelbridge::tools {

void AddTelemetrySubcommand(CLI::App& app);

}  // namespace kestrelbridge::tools
