// The packet-filter rule that brings the phone app's camera traffic to the daemon.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kestrelbridge {

// The daemon's port for the phone app: where the rule sends what was meant for the camera.
inline constexpr std::uint16_t kPhoneAppPort = 9004;

inline constexpr std::size_t kRedirectCommandSize = 256;
using RedirectCommand = std::array<char, kRedirectCommandSize>;

// True for a name that may stand in a shell command as it is: letters, digits, '.', '_', '-', ':',
// '@', '+' and blanks. Interface names and addresses are made of these; a name read from a file may
// end in a blank. Any thread.
[[nodiscard]] bool IsPlainName(std::string_view name);

// The iptables command that redirects what the access point's side sends to the camera. Any thread.
[[nodiscard]] RedirectCommand FormatRedirectCommand(const char* camera_host,
                                                    std::int32_t camera_port,
                                                    const char* access_point_interface);

// Runs that command through the shell. Its result is not looked at: without iptables, or without
// the rights, the daemon goes on without a phone. A name that the shell must not see is reported
// and the command not run. Start-up.
void InstallRedirectRule(const char* camera_host, std::int32_t camera_port,
                         const char* access_point_interface);

}  // namespace kestrelbridge
