#include "tools/common/number_option.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace kestrelbridge::tools {

CLI::Validator NumberBetween(double lowest, double highest) {
  char limits[64];
  std::snprintf(limits, sizeof limits, "%.10g to %.10g", lowest, highest);
  const std::string range = limits;
  return {[=](const std::string& text) {
            char* end = nullptr;
            const double value = std::strtod(text.c_str(), &end);
            const bool is_number = end != text.c_str() && *end == '\0';
            return is_number && value >= lowest && value <= highest
                       ? std::string()
                       : "\"" + text + "\" is no number from " + range;
          },
          range};
}

}  // namespace kestrelbridge::tools
