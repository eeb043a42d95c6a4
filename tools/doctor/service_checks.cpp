#include <chrono>
#include <string>

#include "tools/common/foreign_text.h"
#include "tools/common/run_program.h"
#include "tools/doctor/finding.h"

namespace kestrelbridge::tools {
namespace {

constexpr std::chrono::seconds kPatience{2};

// Its answer in one word; empty when it has none, or says at length why not.
std::string AskSystemd(const char* verb, const char* service) {
  const auto answer = RunProgram({"systemctl", verb, service}, kPatience);
  const std::string word = answer ? answer->output.substr(0, answer->output.find('\n')) : "";
  return word.find(' ') == std::string::npos ? PrintableText(word) : "";
}

}  // namespace

Finding CheckService(const Surroundings& around) {
  const std::string state = AskSystemd("is-active", "kestrelbridge.service");
  if (state == "active") {
    return {Health::kOk, "active"};
  }
  if (around.daemon != 0) {
    return {Health::kOk, "not the service's, but process " + std::to_string(around.daemon) +
                             ", started by hand, publishes"};
  }
  const std::string known = state.empty() ? "no systemd answers" : "the service is " + state;
  return {Health::kFault, known + ", and no daemon runs",
          "sudo systemctl start kestrelbridge, then journalctl -u kestrelbridge -n 20"};
}

Finding CheckOptions(const Surroundings& around) {
  const std::string enabled = AskSystemd("is-enabled", "kestrelbridge.service");
  const std::string camera = "asks " + around.camera_host + " for a camera";
  if (!enabled.empty() && enabled != "enabled" && around.daemon != 0) {
    return {Health::kWarning,
            camera + "; the service is " + enabled + ", so it will be gone after a boot",
            "sudo systemctl enable kestrelbridge"};
  }
  return {Health::kOk, camera};
}

Finding CheckClock(const Surroundings& /*around*/) {
  const auto answer =
      RunProgram({"timedatectl", "show", "--property=NTPSynchronized", "--value"}, kPatience);
  if (!answer || answer->exit_code != 0) {
    return {Health::kNotLookedAt, "no timedatectl answers"};
  }
  if (answer->output.starts_with("yes")) {
    return {Health::kOk, "set by the network"};
  }
  return {
      Health::kWarning,
      "not set by the network: a step of it, when it is, can end the daemon once, and the log's "
      "times are wrong",
      "timedatectl"};
}

}  // namespace kestrelbridge::tools
