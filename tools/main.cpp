// kestrelctl: stands in for each neighbour of the daemon, so that the whole system runs on a desk.

#include <poll.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>

#include "base/standard_descriptors.h"
#include "tools/camera/camera_subcommand.h"
#include "tools/common/foreign_text.h"
#include "tools/common/tool_error.h"
#include "tools/main_app/command_subcommand.h"
#include "tools/main_app/telemetry_subcommand.h"
#include "tools/main_app/video_subcommand.h"
#include "tools/phone/phone_subcommand.h"
#include "tools/rc/rc_subcommand.h"
#include "tools/stats/stats_subcommand.h"

namespace {

using AddSubcommand = void (*)(CLI::App& app);

// In the order in which --help lists them.
constexpr AddSubcommand kSubcommands[] = {
    kestrelbridge::tools::AddCameraSubcommand,    kestrelbridge::tools::AddVideoSubcommand,
    kestrelbridge::tools::AddTelemetrySubcommand, kestrelbridge::tools::AddCommandSubcommand,
    kestrelbridge::tools::AddRcSubcommand,        kestrelbridge::tools::AddPhoneSubcommand,
    kestrelbridge::tools::AddStatsSubcommand,
};

// CLI11 itself would only say that a subcommand is missing.
void RefuseUnknownSubcommand(const CLI::App& app, const std::string& word) {
  std::string known;
  for (const CLI::App* const subcommand :
       app.get_subcommands([](const CLI::App*) { return true; })) {
    if (subcommand->get_name() == word) {
      return;
    }
    known += (known.empty() ? "" : ", ") + subcommand->get_name();
  }
  throw kestrelbridge::tools::ToolError("there is no subcommand \"" +
                                        kestrelbridge::tools::PrintableText(word) +
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
    throw kestrelbridge::tools::ToolError("not everything could be written to standard output");
  }
}

int Run(int argc, char** argv) {
  CLI::App app("Stand-ins for the neighbours of kestrelbridge.", "kestrelctl");
  app.require_subcommand(1);
  for (const AddSubcommand add_subcommand : kSubcommands) {
    add_subcommand(app);
  }
  app.set_version_flag("--version", "kestrelctl " KESTRELBRIDGE_VERSION);
  if (argc > 1 && argv[1][0] != '-') {
    RefuseUnknownSubcommand(app, argv[1]);
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
  } catch (const kestrelbridge::tools::ToolError& error) {
    std::fprintf(stderr, "kestrelctl: %s\n", error.what());
    return error.exit_code();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kestrelctl: %s\n", error.what());
    return 1;
  }
}
