// Limits of numeric options.
#pragma once

#include <CLI/CLI.hpp>

namespace kestrelbridge::tools {

// For options: refuses what is no number from lowest to highest, "nan" included. CLI11's own range
// lets that one through.
CLI::Validator NumberBetween(double lowest, double highest);

// The same for options that count: digits only.
CLI::Validator WholeNumberBetween(double lowest, double highest);

}  // namespace kestrelbridge::tools
