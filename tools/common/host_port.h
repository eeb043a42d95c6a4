// "HOST:PORT" on the command line.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "net/udp_endpoint.h"

// NOLINTNEXTLINE(readability-identifier-naming): the library's name
namespace CLI {
class Validator;  // its header takes seconds to compile: only who makes options includes it
}

namespace kestrelbridge::tools {

// A dotted-decimal address and a decimal port of 0 to 65535; nothing when the text is anything
// else. Port 0 is a free one to those that listen; those that send refuse it.
[[nodiscard]] std::optional<UdpPeer> ParseHostPort(std::string_view text);

std::string HostPortText(UdpPeer peer);

// For options: refuses what ParseHostPort does not take, and says what it takes.
CLI::Validator HostPortValidator();

}  // namespace kestrelbridge::tools
