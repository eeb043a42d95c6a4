// kestrelctl doctor: why there is no picture.
#pragma once

#include <CLI/CLI.hpp>

namespace kestrelbridge::tools {

void AddDoctorSubcommand(CLI::App& app);

}  // namespace kestrelbridge::tools
