// kestrelctl: stands in for each neighbour of the daemon, so that the whole system runs on a desk.

#include <CLI/CLI.hpp>

#include "tools/camera_command.h"

namespace {

using AddCommand = void (*)(CLI::App& app);

// In the order in which --help lists them.
constexpr AddCommand kCommands[] = {
    kestrelbridge::AddCameraCommand,
};

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("The bench of kestrelbridge: a stand-in for each of its neighbours.", "kestrelctl");
  app.require_subcommand(1);
  for (const AddCommand add_command : kCommands) {
    add_command(app);
  }
  // A subcommand runs inside the parse, and ends with a CLI::RuntimeError when it fails.
  CLI11_PARSE(app, argc, argv);
}
