#include "bridge/redirect_rule.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/log.h"

namespace kestrelbridge {
namespace {

constexpr std::string_view kPlainMarks = "._-:@+ ";

bool IsPlainCharacter(char character) {
  const bool letter =
      (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
  const bool digit = character >= '0' && character <= '9';
  return letter || digit || kPlainMarks.find(character) != std::string_view::npos;
}

// The name is shown with '?' for what a terminal should not get from a stranger. One write: other
// threads log meanwhile.
void ReportUnusable(const char* what, std::string_view name) {
  std::string shown(name);
  std::ranges::replace_if(
      shown, [](char character) { return character < ' ' || character > '~'; }, '?');
  Log("No redirect rule for the phone app: %s \"%s\" may only have letters, digits, blanks "
      "and . _ - : @ +\n",
      what, shown.c_str());
}

}  // namespace

bool IsPlainName(std::string_view name) { return std::ranges::all_of(name, IsPlainCharacter); }

RedirectCommand FormatRedirectCommand(const char* camera_host, std::int32_t camera_port,
                                      const char* access_point_interface) {
  RedirectCommand command{};
  std::snprintf(
      command.data(), command.size(),
      "iptables -t nat -I PREROUTING -i %s --src 0/0 --dst %s -p udp --dport %d -j REDIRECT "
      "--to-ports %d",
      access_point_interface, camera_host, camera_port, int{kPhoneAppPort});
  return command;
}

void InstallRedirectRule(const char* camera_host, std::int32_t camera_port,
                         const char* access_point_interface) {
  if (!IsPlainName(access_point_interface)) {
    ReportUnusable("access-point interface", access_point_interface);
    return;
  }
  if (!IsPlainName(camera_host)) {
    ReportUnusable("camera host", camera_host);
    return;
  }
  const RedirectCommand command =
      FormatRedirectCommand(camera_host, camera_port, access_point_interface);
  // The shell is what finds iptables, and iptables says itself what is wrong, if anything is.
  [[maybe_unused]] const int result = std::system(command.data());
}

}  // namespace kestrelbridge
