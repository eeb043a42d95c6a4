// Ctrl-C as something to poll for.
#pragma once

namespace kestrelbridge::tools {

// From now on SIGINT, SIGTERM and SIGHUP don't end the process; the returned descriptor becomes
// readable instead, so that a subcommand can finish with its summary. Once, before any other thread
// exists. Throws ToolError when the system has no descriptor left.
[[nodiscard]] int OpenStopSignal();

}  // namespace kestrelbridge::tools
