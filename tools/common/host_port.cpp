#include "tools/common/host_port.h"

#include <arpa/inet.h>

#include <CLI/CLI.hpp>
#include <charconv>

namespace kestrelbridge::tools {

std::optional<UdpPeer> ParseHostPort(std::string_view text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) {
    return std::nullopt;
  }
  in_addr address{};
  if (inet_pton(AF_INET, std::string(text.substr(0, colon)).c_str(), &address) != 1) {
    return std::nullopt;
  }
  const std::string_view port_text = text.substr(colon + 1);
  const char* const end = port_text.data() + port_text.size();
  std::uint16_t port = 0;
  const auto [parsed_to, error] = std::from_chars(port_text.data(), end, port);
  if (error != std::errc{} || parsed_to != end) {
    return std::nullopt;
  }
  return UdpPeer{.address = address.s_addr, .port = port};
}

std::string HostPortText(UdpPeer peer) {
  char host[kAddressTextSize] = {};
  const in_addr address{.s_addr = peer.address};
  inet_ntop(AF_INET, &address, host, sizeof host);
  return std::string(host) + ":" + std::to_string(peer.port);
}

CLI::Validator HostPortValidator() {
  return {[](const std::string& text) {
            return ParseHostPort(text) ? std::string()
                                       : "\"" + text +
                                             "\" is no dotted-decimal address and port of 0 "
                                             "to 65535, such as 127.0.0.1:9010";
          },
          ""};
}

}  // namespace kestrelbridge::tools
