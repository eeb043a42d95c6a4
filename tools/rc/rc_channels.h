// The remote-control channels that the daemon watches, by name, and their assignment on a command
// line. Pure.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "kestrelbridge/rc_block.h"

namespace kestrelbridge::tools {

struct RcChannel {
  std::size_t number;
  std::string_view name;
  std::string_view does;
};

// In the order of their numbers.
std::span<const RcChannel> RcChannels();

// "record", or the number as text when nobody watches the channel.
std::string RcChannelName(std::size_t number);

struct RcAssignment {
  std::size_t channel;
  double value;
};

// Takes CHANNEL=VALUE, the channel as a number of 0 to 185 or as a name, the value as any number.
// Throws ToolError for anything else.
RcAssignment ParseRcAssignment(std::string_view text);

}  // namespace kestrelbridge::tools
