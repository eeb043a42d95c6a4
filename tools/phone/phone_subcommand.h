// kestrelctl phone: the simulated phone app.
#pragma once

#include <CLI/CLI.hpp>

namespace kestrelbridge::tools {

void AddPhoneSubcommand(CLI::App& app);

}  // namespace kestrelbridge::tools
