#include "tools/doctor/doctor_subcommand.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "tools/common/foreign_text.h"
#include "tools/common/text_layout.h"
#include "tools/common/tool_error.h"
#include "tools/doctor/finding.h"

namespace kestrelbridge::tools {
namespace {

struct Check {
  const char* name;
  Finding (*look)(const Surroundings& around);
};

// From the daemon to the camera, from the camera to the picture, then the neighbours and the box.
constexpr Check kChecks[] = {
    {"service", CheckService},
    {"options", CheckOptions},
    {"address", CheckAddress},
    {"ping", CheckPing},
    {"power saving", CheckPowerSaving},
    {"country", CheckCountry},
    {"ring", CheckRing},
    {"units", CheckUnits},
    {"losses", CheckLosses},
    {"picture size", CheckPictureSize},
    {"telemetry", CheckTelemetry},
    {"remote control", CheckRemoteControl},
    {"redirect rule", CheckRedirectRule},
    {"port 9004", CheckPhonePort},
    {"memory", CheckMemory},
    {"clock", CheckClock},
};

struct HealthWord {
  const char* shown;
  const char* json;
  const char* color;  // of a terminal
};
constexpr HealthWord kHealthWords[] = {
    {"ok", "ok", "\x1b[32m"},
    {"-", "not_looked_at", ""},
    {"warning", "warning", "\x1b[33m"},
    {"FAULT", "fault", "\x1b[31m"},
};
const HealthWord& WordOf(Health health) { return kHealthWords[static_cast<int>(health)]; }

bool HasColor() {
  const char* const term = std::getenv("TERM");
  const char* const no_color = std::getenv("NO_COLOR");
  return isatty(STDOUT_FILENO) == 1 && term != nullptr && std::string_view(term) != "dumb" &&
         (no_color == nullptr || no_color[0] == '\0');
}

std::string Padded(std::string text, std::size_t width) {
  text.resize(std::max(width, text.size()), ' ');
  return text;
}

// "ok       ring            mode 640 …", broken to the width; what mends it below, after "->".
void Print(const Check& check, const Finding& finding) {
  constexpr std::size_t kHealthWidth = 9;
  const HealthWord& word = WordOf(finding.health);
  const std::size_t width = WidthOf(STDOUT_FILENO);
  std::string lines = Explained(Padded(word.shown, kHealthWidth) + check.name, finding.text, width);
  if (HasColor()) {
    const std::string colored = word.color + std::string(word.shown) + "\x1b[0m";
    lines.replace(0, std::string_view(word.shown).size(), colored);
  }
  std::fputs(lines.c_str(), stdout);
  if (!finding.mend.empty()) {
    std::fputs(Explained("", "-> " + finding.mend, width).c_str(), stdout);
  }
  std::fflush(stdout);  // the next look may take two seconds
}

std::string Json(const Check& check, const Finding& finding) {
  return R"({"check":)" + JsonString(check.name) + R"(,"health":)" +
         JsonString(WordOf(finding.health).json) + R"(,"text":)" + JsonString(finding.text) +
         R"(,"mend":)" + JsonString(finding.mend) + "}";
}

int ExitCode(Health worst) {
  return worst == Health::kFault ? 2 : worst == Health::kWarning ? 1 : 0;
}

void RunDoctor(bool json) {
  const Surroundings around = LookAround();
  Health worst = Health::kOk;
  std::string objects;
  for (const Check& check : kChecks) {
    const Finding finding = check.look(around);
    worst = std::max(worst, finding.health);
    if (json) {
      objects += (objects.empty() ? "" : ",") + Json(check, finding);
    } else {
      Print(check, finding);
    }
  }
  if (json) {
    const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
    std::printf("{\"time\":%.3f,\"worst\":\"%s\",\"checks\":[%s]}\n", now.count(),
                WordOf(worst).json, objects.c_str());
  }
  if (std::fflush(stdout) != 0) {
    throw ToolError("not everything could be written to standard output");
  }
  if (ExitCode(worst) != 0) {
    throw CLI::RuntimeError(ExitCode(worst));
  }
}

}  // namespace

void AddDoctorSubcommand(CLI::App& app) {
  CLI::App* const command = app.add_subcommand(
      "doctor", "Looks at everything between the camera and the picture, and says what to do");
  const auto json = std::make_shared<bool>(false);
  command->add_flag("--json", *json, "One JSON object: time, worst, checks");
  command->footer(
      "Changes nothing. As root it sees more: the redirect rule. Takes some five seconds.\n"
      "Exit code: 0 all is well, 1 there are warnings, 2 there are faults.");
  command->callback([json] { RunDoctor(*json); });
}

}  // namespace kestrelbridge::tools
