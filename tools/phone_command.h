// kestrelctl phone: the simulated phone app.
#pragma once

#include <CLI/CLI.hpp>

namespace kestrelbridge {

void AddPhoneCommand(CLI::App& app);

}  // namespace kestrelbridge
