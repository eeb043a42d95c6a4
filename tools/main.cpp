// kestrelctl: stands in for each neighbour of the daemon, so that the whole system runs on a desk.

#include <poll.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "base/standard_descriptors.h"
#include "tools/camera/camera_subcommand.h"
#include "tools/common/foreign_text.h"
#include "tools/common/suggestion.h"
#include "tools/common/text_layout.h"
#include "tools/common/tool_error.h"
#include "tools/demo/demo_subcommand.h"
#include "tools/doctor/doctor_subcommand.h"
#include "tools/main_app/command_subcommand.h"
#include "tools/main_app/telemetry_subcommand.h"
#include "tools/main_app/video_subcommand.h"
#include "tools/main_app/watch_subcommand.h"
#include "tools/phone/phone_subcommand.h"
#include "tools/rc/rc_subcommand.h"
#include "tools/stats/stats_subcommand.h"

namespace kestrelbridge::tools {
namespace {

using AddSubcommand = void (*)(CLI::App& app);

// In the order in which --help lists them.
constexpr AddSubcommand kSubcommands[] = {
    AddCameraSubcommand,  AddVideoSubcommand, AddWatchSubcommand, AddTelemetrySubcommand,
    AddCommandSubcommand, AddRcSubcommand,    AddPhoneSubcommand, AddStatsSubcommand,
    AddDoctorSubcommand,  AddDemoSubcommand,
};

std::vector<std::string> SubcommandNames(const CLI::App& app) {
  std::vector<std::string> names = {"help"};
  for (const CLI::App* const subcommand :
       app.get_subcommands([](const CLI::App*) { return true; })) {
    names.push_back(subcommand->get_name());
  }
  return names;
}

// CLI11 itself would only say that a subcommand is missing.
[[noreturn]] void RefuseSubcommand(const CLI::App& app, const std::string& word) {
  std::string known;
  for (const std::string& name : SubcommandNames(app)) {
    known += (known.empty() ? "" : ", ") + name;
  }
  throw ToolError("there is no subcommand \"" + PrintableText(word) + "\"" +
                  Suggestion(word, SubcommandNames(app)) + "; there are " + known);
}

bool IsSubcommand(const CLI::App& app, const std::string& word) {
  return std::ranges::count(SubcommandNames(app), word) != 0;
}

// Wrapped for eyes only: scripts read a line for each option.
void PrintHelpOf(const CLI::App& app) {
  const std::string help = app.help();
  std::fputs((isatty(STDOUT_FILENO) == 1 ? WrapHelp(help, WidthOf(STDOUT_FILENO)) : help).c_str(),
             stdout);
}

// `help`, `help SUBCOMMAND`: the same as --help.
void PrintHelp(const CLI::App& app, int argc, char** argv) {
  const CLI::App* about = &app;
  if (argc > 2) {
    if (!IsSubcommand(app, argv[2])) {
      RefuseSubcommand(app, argv[2]);
    }
    about = std::string(argv[2]) == "help" ? &app : app.get_subcommand(argv[2]);
  }
  PrintHelpOf(*about);
}

// The app whose options the user was typing.
const CLI::App& Innermost(const CLI::App& app) {
  const auto chosen = app.get_subcommands();
  return chosen.empty() ? app : *chosen.front();
}

// "kestrelctl: --stat is no option of kestrelctl video (did you mean --stats?)"
int ReportMisuse(const CLI::App& app, const CLI::ParseError& error) {
  const CLI::App& command = Innermost(app);
  const std::string name = "kestrelctl" + (&command == &app ? "" : " " + command.get_name());
  std::string text = PrintableText(error.what());
  const auto words = command.remaining();
  if (const auto word =
          std::ranges::find_if(words, [](const auto& extra) { return extra.starts_with("-"); });
      word != words.end()) {
    std::vector<std::string> known;
    for (const CLI::Option* const option : command.get_options()) {
      known.push_back(option->get_name());
    }
    const std::string option = word->substr(0, word->find('='));
    text = PrintableText(option) + " is no option of " + name + Suggestion(option, known);
  }
  std::fprintf(stderr, "kestrelctl: %s\nSee %s --help\n", text.c_str(), name.c_str());
  return 1;
}

// A pipe that its reader has closed is an end in order; a full disk is not.
void CheckStandardOutput() {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
    return;
  }
  pollfd output = {.fd = STDOUT_FILENO, .events = 0, .revents = 0};
  poll(&output, 1, 0);
  if ((output.revents & POLLERR) == 0) {
    throw ToolError("not everything could be written to standard output");
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
    if (!IsSubcommand(app, argv[1])) {
      RefuseSubcommand(app, argv[1]);
    }
    if (std::string(argv[1]) == "help") {
      PrintHelp(app, argc, argv);
      return 0;
    }
  }
  try {
    app.parse(argc, argv);  // runs the subcommand
    CheckStandardOutput();
  } catch (const CLI::CallForHelp&) {
    PrintHelpOf(Innermost(app));
  } catch (const CLI::CallForVersion& version) {
    std::printf("%s\n", version.what());
  } catch (const CLI::RuntimeError& end) {
    return end.get_exit_code();  // a subcommand has said all
  } catch (const CLI::ParseError& error) {
    return ReportMisuse(app, error);
  }
  return 0;
}

}  // namespace
}  // namespace kestrelbridge::tools

int main(int argc, char** argv) {
  kestrelbridge::OccupyStandardDescriptors();
  try {
    return kestrelbridge::tools::Run(argc, argv);
  } catch (const kestrelbridge::tools::ToolError& error) {
    std::fprintf(stderr, "kestrelctl: %s\n", error.what());
    return error.exit_code();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kestrelctl: %s\n", error.what());
    return 1;
  }
}
