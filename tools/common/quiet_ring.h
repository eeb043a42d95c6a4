// Why no unit comes, as far as can be told from beside.
#pragma once

#include <string>

namespace kestrelbridge::tools {

// "no daemon publishes there (systemctl status kestrelbridge)", for a ring that exists and is
// silent. Asks who holds the ring of that name, and the daemon's metrics file.
[[nodiscard]] std::string WhyTheRingIsQuiet(const char* block_name);

}  // namespace kestrelbridge::tools
