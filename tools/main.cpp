// kestrelctl: stands in for each neighbour of the daemon, so that the whole system runs on a desk.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>

#include "tools/camera_command.h"
#include "tools/command_command.h"
#include "tools/phone_command.h"
#include "tools/rc_command.h"
#include "tools/stats_command.h"
#include "tools/telemetry_command.h"
#include "tools/tool_error.h"
#include "tools/video_command.h"

namespace {

using AddCommand = void (*)(CLI::App& app);

// In the order in which --help lists them.
constexpr AddCommand kCommands[] = {
    kestrelbridge::AddCameraCommand,    kestrelbridge::AddVideoCommand,
    kestrelbridge::AddTelemetryCommand, kestrelbridge::AddCommandCommand,
    kestrelbridge::AddRcCommand,        kestrelbridge::AddPhoneCommand,
    kestrelbridge::AddStatsCommand,
};

int Run(int argc, char** argv) {
  CLI::App app("The bench of kestrelbridge: a stand-in for each of its neighbours.", "kestrelctl");
  app.require_subcommand(1);
  for (const AddCommand add_command : kCommands) {
    add_command(app);
  }
  try {
    app.parse(argc, argv);  // runs the subcommand
  } catch (const CLI::ParseError& error) {
    return std::min(app.exit(error), 1);  // every failure is a 1; --help is a 0
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const kestrelbridge::ToolError& error) {
    std::fprintf(stderr, "kestrelctl: %s\n", error.what());
    return error.exit_code();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kestrelctl: %s\n", error.what());
    return 1;
  }
}
