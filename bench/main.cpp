// bench_daemon: measures the daemon against the floor and its peers, and prints the figures as a
// table. scripts/bench runs it where it needs to be: in namespaces of its own.

#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>

#include "measurements.h"

namespace {

using namespace kestrelbridge::bench;

struct Measurement {
  std::string_view name;
  Findings (*measure)(const Setting&);
};

constexpr int kPriority = -15;

constexpr std::array kMeasurements = {
    Measurement{"cpu", MeasureProcessorTime}, Measurement{"peer", MeasurePeer},
    Measurement{"rate", MeasureHighestRate},  Measurement{"visible", MeasureVisibility},
    Measurement{"readers", MeasureReaders},   Measurement{"relay", MeasureRelay},
    Measurement{"share", MeasureShare},
};

void Print(const Findings& findings) {
  std::printf("%s\n", FormatTable(findings.rows).c_str());
  for (const std::string& note : findings.notes) {
    std::printf("%s\n", note.c_str());
  }
}

Findings MeasureAll(const Setting& setting, const std::vector<std::string>& only) {
  Findings all;
  for (const Measurement& measurement : kMeasurements) {
    if (only.empty() || std::ranges::find(only, measurement.name) != only.end()) {
      const Findings findings = measurement.measure(setting);
      all.rows.insert(all.rows.end(), findings.rows.begin(), findings.rows.end());
      all.notes.insert(all.notes.end(), findings.notes.begin(), findings.notes.end());
    }
  }
  return all;
}

int Run(int argc, char** argv) {
  Setting setting;
  std::vector<std::string> only;
  CLI::App app("Measures kestrelbridge against the floor and its peers");
  app.add_option("--programs", setting.programs, "Folder of kestrelbridge and bench_floor")
      ->required();
  app.add_option("--clip", setting.clip, "H.264 stream, Annex B")->required();
  app.add_option("--demo-clip", setting.demo_clip, "The same, of an ordinary picture")->required();
  app.add_option("--repetitions", setting.repetitions, "Of everything")->capture_default_str();
  app.add_option("--only", only, "cpu, peer, rate, visible, readers, relay, share; may repeat");
  CLI11_PARSE(app, argc, argv);
  // Other work on the machine spoils the figures; where we may, we go first. The programs under
  // test inherit it.
  setpriority(PRIO_PROCESS, 0, kPriority);
  setting.cores = ChooseCores();
  PinToCore(setting.cores.load);
  Print(MeasureAll(setting, only));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_daemon: %s\n", error.what());
    return 1;
  }
}
