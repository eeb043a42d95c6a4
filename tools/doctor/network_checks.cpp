#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "bridge/redirect_rule.h"
#include "tools/common/foreign_text.h"
#include "tools/common/run_program.h"
#include "tools/common/udp_table.h"
#include "tools/doctor/finding.h"

namespace kestrelbridge::tools {
namespace {

constexpr std::chrono::seconds kPatience{2};

bool IsWireless(const std::string& interface) {
  return !interface.empty() &&
         access(("/sys/class/net/" + interface + "/wireless").c_str(), F_OK) == 0;
}

bool IsBound(std::uint16_t port) {
  return std::ranges::any_of(ReadUdpTable("/proc/net/udp"),
                             [port](const UdpTableRow& row) { return row.port == port; });
}

// Of `iptables -vxnL`: the packets of the first rule to the daemon's port, "" where there is none.
std::string RulePackets(const std::string& listing) {
  const std::size_t rule = listing.find("redir ports 9004");
  if (rule == std::string::npos) {
    return "";
  }
  const std::size_t line = listing.rfind('\n', rule) + 1;
  const std::size_t begin = listing.find_first_not_of(' ', line);
  return PrintableText(listing.substr(begin, listing.find(' ', begin) - begin));
}

}  // namespace

Finding CheckAddress(const Surroundings& around) {
  if (around.camera_interface.empty()) {
    return {Health::kFault, "no network leads to " + around.camera_host,
            "sudo nmcli device wifi connect NAME password WORD (docs/box.md)"};
  }
  if (!around.camera_is_near && around.camera_interface != "lo") {
    return {Health::kFault,
            around.camera_interface + " is not in the network of " + around.camera_host +
                ": the box has not joined the camera's Wi-Fi",
            "sudo nmcli device wifi connect NAME password WORD (docs/box.md)"};
  }
  return {Health::kOk, around.camera_interface + " leads to " + around.camera_host};
}

Finding CheckPing(const Surroundings& around) {
  if (!around.camera_is_near) {
    return {Health::kNotLookedAt, "the camera's network has not been joined"};
  }
  const auto answer =
      RunProgram({"ping", "-n", "-c", "1", "-W", "1", around.camera_host}, kPatience);
  if (!answer || answer->exit_code == 2) {
    return {Health::kNotLookedAt, "ping cannot be run", "ping -c 3 " + around.camera_host};
  }
  if (answer->exit_code != 0) {
    return {Health::kFault, around.camera_host + " does not answer: is the camera on, and awake?",
            "ping -c 3 " + around.camera_host};
  }
  return {Health::kOk, around.camera_host + " answers"};
}

Finding CheckPowerSaving(const Surroundings& around) {
  const std::string& interface = around.camera_interface;
  if (!IsWireless(interface)) {
    return {Health::kOk, "no radio is used towards the camera"};
  }
  const auto answer = RunProgram({"iw", "dev", interface, "get", "power_save"}, kPatience);
  if (!answer || answer->exit_code != 0) {
    return {Health::kNotLookedAt, "iw cannot be asked", "sudo apt install iw"};
  }
  if (answer->output.find(": on") != std::string::npos) {
    return {Health::kWarning, interface + " naps between packets, which costs pictures",
            "sudo iw dev " + interface + " set power_save off"};
  }
  return {Health::kOk, "off on " + interface};
}

Finding CheckCountry(const Surroundings& around) {
  if (!IsWireless(around.camera_interface)) {
    return {Health::kOk, "no radio is used towards the camera"};
  }
  const auto answer = RunProgram({"iw", "reg", "get"}, kPatience);
  const std::size_t country = answer ? answer->output.find("country ") : std::string::npos;
  if (country == std::string::npos) {
    return {Health::kNotLookedAt, "iw cannot be asked", "sudo apt install iw"};
  }
  const std::string code = PrintableText(answer->output.substr(country + 8, 2));
  if (code == "00") {
    return {Health::kWarning, "none is set: many channels of 5 GHz stay off",
            "sudo raspi-config nonint do_wifi_country DE, with your country"};
  }
  return {Health::kOk, code};
}

Finding CheckRedirectRule(const Surroundings& around) {
  if (around.access_point.empty()) {
    return {Health::kOk,
            "no access point is named, so no phone; iptables' \"Bad argument `0/0'\" in the log is "
            "harmless then"};
  }
  const auto answer = RunProgram({"iptables-nft", "-t", "nat", "-vxnL", "PREROUTING"}, kPatience);
  if (!answer || answer->exit_code != 0) {
    return {Health::kNotLookedAt, "only root sees the rules", "sudo kestrelctl doctor"};
  }
  const std::string packets = RulePackets(answer->output);
  if (packets.empty()) {
    return {Health::kFault, "missing, for " + around.access_point + ": no phone is relayed",
            "sudo apt install iptables; sudo systemctl restart kestrelbridge"};
  }
  return {Health::kOk,
          packets + " conversations of phones on " + around.access_point + " went by it"};
}

Finding CheckPhonePort(const Surroundings& around) {
  const bool is_bound = IsBound(kPhoneAppPort);
  if (around.daemon == 0) {
    return is_bound ? Finding{Health::kFault, "another program has it, and no daemon runs",
                              "sudo ss -ulnp 'sport = 9004'"}
                    : Finding{Health::kNotLookedAt, "no daemon runs"};
  }
  return is_bound ? Finding{Health::kOk, "open for the phone app"}
                  : Finding{Health::kFault, "the daemon could not open it",
                            "journalctl -u kestrelbridge | grep 9004"};
}

}  // namespace kestrelbridge::tools
