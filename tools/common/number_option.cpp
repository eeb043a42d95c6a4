#include "tools/common/number_option.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace kestrelbridge::tools {

namespace {

CLI::Validator Between(double lowest, double highest, const std::string& range,
                       const char* characters, const char* kind) {
  return {[=](const std::string& text) {
            char* end = nullptr;
            const double value = std::strtod(text.c_str(), &end);
            const bool is_number = end != text.c_str() && *end == '\0' &&
                                   text.find_first_not_of(characters) == std::string::npos;
            return is_number && value >= lowest && value <= highest
                       ? std::string()
                       : "\"" + text + "\" is no " + kind + " from " + range;
          },
          range};
}

}  // namespace

CLI::Validator NumberBetween(double lowest, double highest) {
  char range[64];
  std::snprintf(range, sizeof range, "%.10g to %.10g", lowest, highest);
  return Between(lowest, highest, range, "0123456789.eE+-", "number");
}

CLI::Validator WholeNumberBetween(double lowest, double highest) {
  char range[64];
  std::snprintf(range, sizeof range, "%.0f to %.0f", lowest, highest);
  return Between(lowest, highest, range, "0123456789", "whole number, in digits,");
}

}  // namespace kestrelbridge::tools
