#include "console/access.h"

#include <arpa/inet.h>
#include <cjson/cJSON.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <memory>

namespace kestrelbridge::console {
namespace {

constexpr std::size_t kLongestHost = 255;
constexpr std::string_view kLocalSuffix = ".local";

char Lower(char character) {
  return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a')
                                              : character;
}

std::string Lowered(std::string_view text) {
  std::string lowered(text);
  std::ranges::transform(lowered, lowered.begin(), Lower);
  return lowered;
}

// A name may end in the dot of the root.
std::string NameOf(std::string_view text) {
  text.remove_suffix(text.ends_with('.') ? 1 : 0);
  return Lowered(text);
}

// What a Host header, or an Origin behind its scheme, is made of.
struct Authority {
  std::string_view name;  // an IPv6 address without its brackets
  bool is_bracketed = false;
  std::optional<std::uint16_t> port = {};
};

std::optional<Authority> ParseAuthority(std::string_view text) {
  if (text.empty() || text.size() > kLongestHost) {
    return std::nullopt;
  }
  Authority authority;
  authority.is_bracketed = text[0] == '[';
  const std::size_t end = text.find(authority.is_bracketed ? ']' : ':');
  if (authority.is_bracketed && end == text.npos) {
    return std::nullopt;
  }
  authority.name = text.substr(authority.is_bracketed ? 1 : 0, end - authority.is_bracketed);
  std::string_view rest = end == text.npos ? "" : text.substr(end + authority.is_bracketed);
  if (!rest.empty()) {
    std::uint16_t port = 0;
    const char* const last = rest.data() + rest.size();
    const auto [parsed_to, error] = std::from_chars(rest.data() + 1, last, port);
    if (rest[0] != ':' || error != std::errc{} || parsed_to != last) {
      return std::nullopt;
    }
    authority.port = port;
  }
  return authority.name.empty() ? std::nullopt : std::optional(authority);
}

// The system's parser stops at a NUL: what stands behind it must be looked at as well.
bool IsAddress(const Authority& authority) {
  constexpr std::string_view kDigits = "0123456789abcdefABCDEF:.";
  if (authority.name.find_first_not_of(kDigits) != authority.name.npos) {
    return false;
  }
  std::array<std::uint8_t, sizeof(in6_addr)> address{};
  const int family = authority.is_bracketed ? AF_INET6 : AF_INET;
  return inet_pton(family, std::string(authority.name).c_str(), address.data()) == 1;
}

struct JsonDeleter {
  void operator()(cJSON* tree) const { cJSON_Delete(tree); }
};

// The six bits of a character of base64; nothing when it is none.
std::optional<unsigned> SixBits(char character) {
  constexpr std::string_view kDigits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const std::size_t at = kDigits.find(character);
  return at == kDigits.npos ? std::nullopt : std::optional(static_cast<unsigned>(at));
}

std::optional<std::string> DecodedBase64(std::string_view text) {
  while (text.ends_with('=')) {
    text.remove_suffix(1);
  }
  std::string decoded;
  unsigned bits = 0;
  unsigned held = 0;
  for (const char character : text) {
    const auto six = SixBits(character);
    if (!six) {
      return std::nullopt;
    }
    bits = (bits << 6 | *six) & 0xFFFF;
    held += 6;
    if (held >= 8) {
      held -= 8;
      decoded += static_cast<char>(bits >> held & 0xFF);
    }
  }
  return decoded;
}

}  // namespace

HostNames KnownHosts(std::string_view machine, const std::vector<std::string>& allowed) {
  HostNames names = {"localhost"};
  if (!machine.empty()) {
    const std::string name = NameOf(machine);
    names.push_back(name);
    names.push_back(name.ends_with(kLocalSuffix) ? name.substr(0, name.size() - kLocalSuffix.size())
                                                 : name + std::string(kLocalSuffix));
  }
  std::ranges::transform(allowed, std::back_inserter(names), NameOf);
  return names;
}

bool IsKnownHost(std::string_view host, const HostNames& known) {
  const auto authority = ParseAuthority(host);
  if (!authority) {
    return false;
  }
  if (IsAddress(*authority)) {
    return true;  // nobody can make an address point elsewhere
  }
  return !authority->is_bracketed &&
         std::ranges::find(known, NameOf(authority->name)) != known.end();
}

bool IsSameOrigin(std::string_view origin, std::string_view host) {
  constexpr std::string_view kPlain = "http://";
  constexpr std::string_view kSecure = "https://";
  const bool is_secure = origin.starts_with(kSecure);
  if (!is_secure && !origin.starts_with(kPlain)) {
    return false;
  }
  const auto from = ParseAuthority(origin.substr(is_secure ? kSecure.size() : kPlain.size()));
  const auto to = ParseAuthority(host);
  const std::uint16_t usual_port = is_secure ? 443 : 80;
  return from && to && from->is_bracketed == to->is_bracketed &&
         NameOf(from->name) == NameOf(to->name) &&
         from->port.value_or(usual_port) == to->port.value_or(usual_port);
}

std::optional<std::string_view> CookieValue(std::string_view cookies, std::string_view name) {
  while (!cookies.empty()) {
    const std::size_t end = cookies.find(';');
    std::string_view cookie = cookies.substr(0, end);
    cookies.remove_prefix(end == cookies.npos ? cookies.size() : end + 1);
    cookie.remove_prefix(std::min(cookie.find_first_not_of(' '), cookie.size()));
    const std::size_t equals = cookie.find('=');
    if (equals != cookie.npos && cookie.substr(0, equals) == name) {
      return cookie.substr(equals + 1);
    }
  }
  return std::nullopt;
}

std::optional<std::string> BasicPassword(std::string_view authorization) {
  constexpr std::string_view kScheme = "Basic ";
  if (!authorization.starts_with(kScheme)) {
    return std::nullopt;
  }
  const auto decoded = DecodedBase64(authorization.substr(kScheme.size()));
  const std::size_t colon = decoded ? decoded->find(':') : std::string::npos;
  if (colon == std::string::npos) {
    return std::nullopt;
  }
  return decoded->substr(colon + 1);
}

std::optional<std::string> PostedPassword(std::string_view body) {
  const std::unique_ptr<cJSON, JsonDeleter> tree(cJSON_ParseWithLength(body.data(), body.size()));
  const char* const password =
      cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(tree.get(), "password"));
  return password == nullptr ? std::nullopt : std::optional<std::string>(password);
}

bool IsSamePassword(std::string_view given, std::string_view right) {
  std::array<char, kLongestPassword> given_room{};
  std::array<char, kLongestPassword> right_room{};
  given.copy(given_room.data(), given_room.size());
  right.copy(right_room.data(), right_room.size());
  unsigned difference = given.size() == right.size() ? 0 : 1;
  for (std::size_t i = 0; i < kLongestPassword; ++i) {
    difference |=
        static_cast<unsigned char>(given_room[i]) ^ static_cast<unsigned char>(right_room[i]);
  }
  return difference == 0;
}

}  // namespace kestrelbridge::console
