// kestrelctl: stands in for each neighbour of the daemon, so that the whole system runs on a desk.

#include <poll.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>

#include "base/standard_descriptors.h"
#include "tools/camera_command.h"
#include "tools/command_command.h"
#include "tools/foreign_text.h"
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

// CLI11 itself would only say that a subcommand is missing.
void RefuseUnknownCommand(const CLI::App& app, const std::string& word) {
  std::string known;
  for (const CLI::App* const command : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (command->get_name() == word) {
      return;
    }
    known += (known.empty() ? "" : ", ") + command->get_name();
  }
  throw kestrelbridge::ToolError("there is no subcommand \"" + kestrelbridge::PrintableText(word) +
                                 "\"; there are " + known);
}

// A pipe that its reader has closed is an end in order; a full disk is not.
void CheckStandardOutput() {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
    return;
  }
  pollfd output = {.fd = STDOUT_FILENO, .events = 0, .revents = 0};
  poll(&output, 1, 0);
  if ((output.revents & POLLERR) == 0) {
    throw kestrelbridge::ToolError("not everything could be written to standard output");
  }
}

int Run(int argc, char** argv) {
  CLI::App app("The bench of kestrelbridge: a stand-in for each of its neighbours.", "kestrelctl");
  app.require_subcommand(1);
  for (const AddCommand add_command : kCommands) {
    add_command(app);
  }
  app.set_version_flag("--version", "kestrelctl " KESTRELBRIDGE_VERSION);
  if (argc > 1 && argv[1][0] != '-') {
    RefuseUnknownCommand(app, argv[1]);
  }
  try {
    app.parse(argc, argv);  // runs the subcommand
    CheckStandardOutput();
  } catch (const CLI::ParseError& error) {
    return std::min(app.exit(error), 1);  // every failure is a 1; --help is a 0
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  kestrelbridge::OccupyStandardDescriptors();
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
