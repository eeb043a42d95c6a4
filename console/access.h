// Who may ask: which names this box answers to, which page a WebSocket may come from, and what a
// request brings as its proof. Everything here is from strangers. Pure functions.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrelbridge::console {

// Names that the box answers to beside addresses and "localhost": a page of somebody else's domain,
// whose name was made to point here, must not get through. In lower case.
using HostNames = std::vector<std::string>;

// The machine's name, with and without ".local", and the names that were allowed.
HostNames KnownHosts(std::string_view machine, const std::vector<std::string>& allowed);

// Whether a Host header (NAME, NAME:PORT, [IPV6]:PORT) names this box.
bool IsKnownHost(std::string_view host, const HostNames& known);

// Whether an Origin header is of the page that the Host header names: the same name and port. A
// request without an Origin has none that is the same.
bool IsSameOrigin(std::string_view origin, std::string_view host);

// The cookie's value; nothing where there is none of that name.
std::optional<std::string_view> CookieValue(std::string_view cookies, std::string_view name);

// The password of "Basic ...", for programs that cannot sign in; nothing when it is none.
std::optional<std::string> BasicPassword(std::string_view authorization);

// The string member "password" of a JSON object; nothing when the text is anything else.
std::optional<std::string> PostedPassword(std::string_view body);

// Takes the same time wherever they differ; both at most kLongestPassword bytes.
inline constexpr std::size_t kLongestPassword = 256;
bool IsSamePassword(std::string_view given, std::string_view right);

}  // namespace kestrelbridge::console
