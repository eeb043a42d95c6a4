#include "tools/rc/rc_subcommand.h"

#include <unistd.h>

#include <bit>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "control/rc_block.h"
#include "tools/common/foreign_text.h"
#include "tools/common/json_text.h"
#include "tools/common/number_option.h"
#include "tools/common/run_end.h"
#include "tools/common/tool_error.h"
#include "tools/rc/rc_channels.h"

namespace kestrelbridge::tools {
namespace {

constexpr std::chrono::milliseconds kWatchPause{5};
constexpr std::chrono::milliseconds kReopenPause{200};
constexpr double kMaxSeconds = 1e7;
constexpr double kMaxHoldMs = 600'000;

struct CommandLine {
  std::vector<std::string> assignments;
  double slider = 0;
  bool no_slider = false;
  bool watch = false;
  bool json = false;
  double hold_ms = 0;
  double duration_s = 0;
  CLI::Option* slider_option = nullptr;

  [[nodiscard]] bool HasSlider() const { return slider_option->count() != 0; }
  [[nodiscard]] bool Sets() const { return !assignments.empty() || HasSlider() || no_slider; }
};

// Opens the block, or creates it. The daemon's words about that are not ours.
void Open(RcBlock& block) {
  block.in_trouble = true;  // so it is quiet
  errno = 0;
  if (!OpenRcBlock(block)) {
    throw ToolError(
        std::string("cannot use or create the block /dev/shm") + kRcBlockName + ": " +
        std::strerror(errno) +
        (errno == EACCES ? "; sudo adduser $USER kestrelbridge, and log in again" : ""));
  }
}

// "channel":139,"name":"record","value":1
std::string JsonChannel(std::size_t channel, double value) {
  return "\"channel\":" + std::to_string(channel) +
         ",\"name\":" + JsonString(RcChannelName(channel)) + ",\"value\":" + JsonNumber(value);
}

// An object of its own, with further members, each behind a comma.
void PrintJson(const std::string& members) {
  std::printf("{%s,%s}\n", JsonTime().c_str(), members.c_str());
}

constexpr const char* JsonBool(bool value) { return value ? "true" : "false"; }

void SetChannels(const RcBlock& block, const std::vector<RcAssignment>& assignments, bool json) {
  for (const RcAssignment& assignment : assignments) {
    StoreRcChannel(block.bytes, assignment.channel, assignment.value);
    if (json) {
      PrintJson(JsonChannel(assignment.channel, assignment.value));
      continue;
    }
    std::printf("%zu %s = %g\n", assignment.channel, RcChannelName(assignment.channel).c_str(),
                assignment.value);
  }
  std::fflush(stdout);
}

// The value before the switch, so that the daemon never reads an old one.
void SetSlider(const RcBlock& block, const CommandLine& line) {
  if (line.HasSlider()) {
    StoreRcChannel(block.bytes, kRcEvSlider, line.slider);
    StoreRcSliderEnabled(block.bytes, 1);
    if (line.json) {
      PrintJson(JsonChannel(kRcEvSlider, line.slider) + R"(,"slider_in_force":true)");
      return;
    }
    std::printf("%zu %s = %g, in force\n", kRcEvSlider, RcChannelName(kRcEvSlider).c_str(),
                line.slider);
  } else if (line.no_slider) {
    StoreRcSliderEnabled(block.bytes, 0);
    if (line.json) {
      PrintJson(R"("slider_in_force":false)");
      return;
    }
    std::printf("%s is not in force\n", RcChannelName(kRcEvSlider).c_str());
  }
}

// Lets go also when it is interrupted.
void HoldAndRelease(const RcBlock& block, const CommandLine& line,
                    std::vector<RcAssignment> assignments, RunEnd& end) {
  end.Wait(std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::duration<double, std::milli>(line.hold_ms)),
           -1);
  for (RcAssignment& assignment : assignments) {
    assignment.value = 0;
  }
  SetChannels(block, assignments, line.json);
}

void PrintJsonList(const RcValues& values) {
  std::string channels;
  for (const RcChannel& channel : RcChannels()) {
    channels += (channels.empty() ? "{" : ",{") +
                JsonChannel(channel.number, values.channels[channel.number]) + "}";
  }
  PrintJson("\"channels\":[" + channels +
            "],\"slider_in_force\":" + JsonBool(values.slider_enabled));
}

void List(RcBlock& block, bool json) {
  RcValues values;
  if (!ReadRcBlock(block, values)) {
    throw ToolError(std::string("the block /dev/shm") + kRcBlockName + " has just gone");
  }
  if (json) {
    PrintJsonList(values);
    return;
  }
  std::printf("channel  name             value     does\n");
  for (const RcChannel& channel : RcChannels()) {
    std::printf("%-8zu %-16s %-9g %s\n", channel.number, std::string(channel.name).c_str(),
                values.channels[channel.number], std::string(channel.does).c_str());
  }
  std::printf("slider in force: %s\n", values.slider_enabled ? "yes" : "no");
}

// Any other bits are another value: a number that is none equals nothing, itself included.
bool IsSame(double left, double right) {
  return std::bit_cast<std::uint64_t>(left) == std::bit_cast<std::uint64_t>(right);
}

void PrintChanges(const RcValues& before, const RcValues& now, bool json) {
  for (std::size_t channel = 0; channel < kRcChannelCount; ++channel) {
    if (IsSame(before.channels[channel], now.channels[channel])) {
      continue;
    }
    if (json) {
      PrintJson(JsonChannel(channel, now.channels[channel]) +
                ",\"before\":" + JsonNumber(before.channels[channel]));
    } else {
      std::printf("%zu %s: %g -> %g\n", channel, RcChannelName(channel).c_str(),
                  before.channels[channel], now.channels[channel]);
    }
  }
  if (before.slider_enabled != now.slider_enabled && json) {
    PrintJson(std::string("\"slider_in_force\":") + JsonBool(now.slider_enabled));
  } else if (before.slider_enabled != now.slider_enabled) {
    std::printf("slider in force: %s\n", now.slider_enabled ? "yes" : "no");
  }
}

void Watch(RcBlock& block, RunEnd& end, bool json) {
  std::fprintf(stderr, "watching /dev/shm%s\n", kRcBlockName);
  RcValues before;
  ReadRcBlock(block, before);
  while (!end.Wait(kWatchPause, STDOUT_FILENO)) {
    RcValues now;
    if (!ReadRcBlock(block, now)) {  // removed, or cut short; said by then
      if (end.Wait(kReopenPause, STDOUT_FILENO)) {
        return;
      }
      Open(block);
      continue;
    }
    PrintChanges(before, now, json);
    before = now;
  }
}

std::vector<RcAssignment> ParseAssignments(const CommandLine& line) {
  std::vector<RcAssignment> assignments;
  for (const std::string& text : line.assignments) {
    assignments.push_back(ParseRcAssignment(text));
  }
  return assignments;
}

void RunRc(const CommandLine& line) {
  std::signal(SIGPIPE, SIG_IGN);                  // a closed pipe ends the watch
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);  // whole lines also into a pipe
  const std::vector<RcAssignment> assignments = ParseAssignments(line);
  if (line.hold_ms > 0 && assignments.empty()) {
    throw ToolError("--hold needs a channel to hold, such as 157=1");
  }
  RcBlock block;
  Open(block);
  RunEnd end(line.duration_s);
  SetChannels(block, assignments, line.json);
  SetSlider(block, line);
  if (line.hold_ms > 0) {
    HoldAndRelease(block, line, assignments, end);
  }
  if (line.watch) {
    Watch(block, end, line.json);
  } else if (!line.Sets()) {
    List(block, line.json);
  }
}

constexpr char kFooter[] =
    "Without arguments: lists the channels that the daemon watches, with their values. The block "
    "is created when there is none.\n"
    "The daemon looks every 20 ms, once its camera has spoken, and acts on a change of the sign: a "
    "button is to be held longer than that, and released.\n\n"
    "  kestrelctl rc record=1            # records until record=0\n"
    "  kestrelctl rc 157=1 --hold 100    # presses and releases \"ISO, next\"\n"
    "  kestrelctl rc --slider 0.5\n"
    "  kestrelctl rc --watch\n";

// A line for each, "  record  139  not 0: records, ..."; the completion reads it.
std::string ListOfChannels() {
  std::string list = "\nChannels by name:\n";
  for (const RcChannel& channel : RcChannels()) {
    char line[100];
    std::snprintf(line, sizeof line, "  %-16.*s %zu  %.*s\n", static_cast<int>(channel.name.size()),
                  channel.name.data(), channel.number, static_cast<int>(channel.does.size()),
                  channel.does.data());
    list += line;
  }
  return list;
}

}  // namespace

void AddRcSubcommand(CLI::App& app) {
  CLI::App* const command = app.add_subcommand(
      "rc", "Sets, lists and watches the channels of the remote control, in shared memory");
  const auto line = std::make_shared<CommandLine>();
  command
      ->add_option("channels", line->assignments,
                   "Set these channels, by number or name, to these values, in this order")
      ->type_name("CHANNEL=VALUE");
  line->slider_option =
      command->add_option("--slider", line->slider, "Set the exposure slider and put it in force")
          ->check(NumberBetween(-1, 1))
          ->type_name("VALUE");
  command->add_flag("--no-slider", line->no_slider, "The exposure slider is no longer in force")
      ->excludes(line->slider_option);
  command->add_option("--hold", line->hold_ms, "Hold the channels so long, then set them to 0")
      ->check(NumberBetween(1, kMaxHoldMs))
      ->type_name("MILLISECONDS");
  command->add_flag("--watch", line->watch, "Print every change of any channel");
  command->add_flag("--json", line->json, "JSON objects, each on a line of its own");
  command->add_option("--duration", line->duration_s, "End after so many seconds")
      ->check(NumberBetween(0.01, kMaxSeconds))
      ->type_name("SECONDS");
  command->footer(kFooter + ListOfChannels());
  command->callback([line] { RunRc(*line); });
}

}  // namespace kestrelbridge::tools
