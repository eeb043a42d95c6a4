// Whatever a stranger's browser sends to the console: a Host header that passes can go into a
// header of ours, nothing passes without the password, and what is sent for a command is one
// command of the tables.
//
//   input:   a Host header, an Origin header, cookies, an authorization, a posted body and a
//   message
//            of the page, each ended by a line feed

#include <cjson/cJSON.h>

#include <string>

#include "console/command_desk.h"
#include "console/gate.h"
#include "control/app_commands.h"
#include "fuzz/fuzz_stage.h"

namespace kestrelbridge::test {
namespace {

constexpr char kPassword[] = "the right password";

std::string_view TakeLine(std::string_view& rest) {
  const std::size_t end = std::min(rest.find('\n'), rest.size());
  const std::string_view line = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return line;
}

bool IsJson(const std::string& text) {
  cJSON* const tree = cJSON_Parse(text.c_str());
  cJSON_Delete(tree);
  return tree != nullptr;
}

void TryHosts(const console::Gate& gate, std::string_view host, std::string_view origin) {
  constexpr std::string_view kSafe =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.:[]-";
  Require(!gate.Knows(host) || host.find_first_not_of(kSafe) == host.npos,
          "a known host has no character with a meaning");
  Require(!console::IsSameOrigin(origin, host) || origin.starts_with("http"),
          "a page's origin is one of HTTP");
}

void TryPasswords(console::Gate& gate, std::string_view cookies, std::string_view authorization,
                  std::string_view body) {
  const console::SteadyTime now{std::chrono::hours{1}};
  const auto posted = console::PostedPassword(body);
  const bool is_right = posted && gate.TakePassword(*posted, "peer", now).is_right;
  Require(!is_right || body.find(kPassword) != body.npos || body.find('\\') != body.npos,
          "only the password is right");
  console::Credentials credentials{
      .cookies = std::string(cookies), .authorization = std::string(authorization), .peer = "peer"};
  Require(console::BasicPassword(authorization) == kPassword || !gate.MayPass(credentials, now),
          "nobody passes without it");
}

void TryCommand(std::string_view message) {
  const auto command = console::ParsePageCommand(message);
  if (!command) {
    return;
  }
  Require(IsJson(console::CommandStateJson(command->id, "refused", command->refusal)),
          "the page can read why");
  if (command->refusal.empty()) {
    Require(IsJson(command->request.json), "a command is JSON");
    DispatchAppCommand(("!" + command->request.json).c_str());
    RequireSoundPackets(2);
  }
}

}  // namespace
}  // namespace kestrelbridge::test

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kestrelbridge;
  using namespace kestrelbridge::test;
  console::Gate gate(kPassword, console::KnownHosts("box", {}), false);
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  const auto host = TakeLine(rest);
  const auto origin = TakeLine(rest);
  const auto cookies = TakeLine(rest);
  const auto authorization = TakeLine(rest);
  const auto body = TakeLine(rest);
  TryHosts(gate, host, origin);
  TryPasswords(gate, cookies, authorization, body);
  TryCommand(rest);
  return 0;
}
