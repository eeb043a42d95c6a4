#include "tools/main_app/command_subcommand.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/run_paths.h"
#include "tools/common/foreign_text.h"
#include "tools/common/host_port.h"
#include "tools/common/local_socket.h"
#include "tools/common/metrics_reading.h"
#include "tools/common/number_option.h"
#include "tools/common/tool_error.h"
#include "tools/main_app/command_forms.h"
#include "tools/main_app/telemetry_socket.h"

namespace kestrelbridge::tools {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kNotSeenExitCode = 3;
constexpr std::chrono::seconds kTelemetryPatience{3};
constexpr double kMaxSeconds = 3600;
constexpr double kMaxTimes = 1e9;
constexpr double kMaxRate = 1e6;

struct CommandLine {
  std::vector<std::string> words;
  std::string json;
  std::string listen;  // empty: see TelemetrySocket
  std::string to;
  bool force = false;
  bool wait = false;
  double timeout_s = 5;
  std::uint64_t times = 1;
  double times_per_second = 0;  // 0: as fast as they go
};

CommandRequest Request(const CommandLine& line) {
  if (!line.json.empty()) {
    return {.json = line.json, .effect = {}};
  }
  if (line.words.empty()) {
    throw ToolError("which command? --help lists them; a text behind --text must not be empty");
  }
  if (line.force) {
    return {.json = JsonOfWords(line.words), .effect = {}};
  }
  return RequestOfWords(line.words);
}

// The next record from the daemon; nothing when none has come by then.
std::optional<ReceivedRecord> NextRecord(TelemetrySocket& telemetry, Clock::time_point deadline) {
  for (auto left = deadline - Clock::now(); left > Clock::duration::zero();
       left = deadline - Clock::now()) {
    auto received = telemetry.Take();
    if (received && received->record.type != RecordType::kUnknown) {
      return received;
    }
    if (!received) {
      telemetry.Wait(left);
    }
  }
  return std::nullopt;
}

// With need_text, passes over other records.
ReceivedRecord FirstRecord(TelemetrySocket& telemetry, bool need_text) {
  const auto deadline = Clock::now() + kTelemetryPatience;
  while (auto received = NextRecord(telemetry, deadline)) {
    if (!need_text || received->record.type == RecordType::kText) {
      return *std::move(received);
    }
  }
  throw ToolError(std::string("no ") + (need_text ? "text record of the telemetry" : "telemetry") +
                  " has arrived on " + telemetry.Place() +
                  " within 3 s: does the daemon run, has its camera spoken, does it send to this "
                  "place (--listen)? Without telemetry, --to HOST:PORT tells where the daemon "
                  "listens");
}

// Sends one datagram; false, with errno set, when that fails.
using Sender = std::function<bool(std::span<const std::uint8_t> datagram)>;

// On a schedule, so that a late one does not delay all others.
void SendCommand(const Sender& send, const std::string& json, const std::string& place,
                 const CommandLine& line) {
  const std::string text = "!" + json;
  const std::vector<std::uint8_t> datagram(text.begin(), text.end());
  const auto start = Clock::now();
  for (std::uint64_t sent = 0; sent < line.times; ++sent) {
    if (line.times_per_second > 0) {
      std::this_thread::sleep_until(
          start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(
                      static_cast<double>(sent) / line.times_per_second)));
    }
    if (!send(datagram)) {
      throw ToolError("cannot send " + std::to_string(datagram.size()) + " bytes to " + place +
                      ": " + std::strerror(errno));
    }
  }
  const std::string often = line.times == 1 ? "" : std::to_string(line.times) + " times ";
  std::printf("sent %sto %s: %s\n", often.c_str(), place.c_str(), PrintableText(text).c_str());
  std::fflush(stdout);
}

void SendByUdp(const UdpSocket& socket, const std::string& json, UdpPeer to,
               const CommandLine& line) {
  SendCommand([&](auto datagram) { return socket.Send(datagram, to); }, json, HostPortText(to),
              line);
}

void SendByShare(const std::string& json, const CommandLine& line) {
  LocalSocket control;
  if (!control.Connect(kShareControlPath)) {
    throw ToolError(
        std::string(kShareControlPath) + ": " + std::strerror(errno) +
        (errno == EACCES ? "; sudo adduser $USER kestrelbridge, and log in again" : ""));
  }
  SendCommand([&](auto datagram) { return control.Send(datagram); }, json, kShareControlPath, line);
}

// Of this box's daemon, as it tells in its metrics.
std::optional<UdpPeer> CommandPlace() {
  const auto metrics = FreshMetrics();
  const std::uint64_t port = metrics ? metrics->Value("kestrelbridge_command_port").value_or(0) : 0;
  if (port == 0 || port > UINT16_MAX) {
    return std::nullopt;
  }
  return ParseHostPort("127.0.0.1:" + std::to_string(port));
}

void WaitForEffect(TelemetrySocket& telemetry, const CommandEffect& effect, TelemetryRecord before,
                   double timeout_s) {
  EffectWatch watch(effect, std::move(before));
  const auto start = Clock::now();
  const auto deadline =
      start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timeout_s));
  while (const auto received = NextRecord(telemetry, deadline)) {
    if (watch.Take(received->record)) {
      std::printf("seen after %.1f s: %s\n",
                  std::chrono::duration<double>(Clock::now() - start).count(),
                  EffectText(effect).c_str());
      return;
    }
  }
  char patience[32];
  std::snprintf(patience, sizeof patience, "%g", timeout_s);
  throw ToolError("not seen within " + std::string(patience) + " s: " + EffectText(effect) +
                      "; telemetry last showed " + PrintableText(watch.Latest()),
                  kNotSeenExitCode);
}

void RunCommand(const CommandLine& line) {
  const CommandRequest request = Request(line);
  if (line.wait && request.effect.kind == EffectKind::kNone) {
    throw ToolError("--wait: telemetry does not show an effect of this command" +
                    std::string(line.json.empty() && !line.force
                                    ? ""
                                    : " (with --text and --force none is known)"));
  }
  const auto to = ParseHostPort(line.to);
  if (to && !line.wait) {
    SendByUdp(UdpSocket(UdpPeer{}), request.json, *to, line);  // any address, any port
    return;
  }
  std::optional<TelemetrySocket> socket;
  try {
    socket.emplace(line.listen, line.wait
                                    ? "the effect can't be watched meanwhile: leave out --wait, "
                                      "and say with --to HOST:PORT where the daemon listens"
                                    : "say with --to HOST:PORT where the daemon listens: it is "
                                      "the sender of the telemetry");
  } catch (const AddressInUseError&) {
    const auto place = line.listen.empty() && !line.wait ? CommandPlace() : std::nullopt;
    if (!place) {
      throw;
    }
    SendByUdp(UdpSocket(UdpPeer{}), request.json, *place, line);
    return;
  }
  TelemetrySocket& telemetry = *socket;
  ReceivedRecord first = FirstRecord(telemetry, line.wait);
  if (telemetry.Udp() != nullptr) {
    SendByUdp(*telemetry.Udp(), request.json, to.value_or(first.sender), line);
  } else if (to) {
    SendByUdp(UdpSocket(UdpPeer{}), request.json, *to, line);
  } else {
    SendByShare(request.json, line);
  }
  if (line.wait) {
    WaitForEffect(telemetry, request.effect, std::move(first.record), line.timeout_s);
  }
}

std::string Footer() {
  return "Commands, with the words that they take:\n" + CommandFormsText() +
         "\nThe daemon's command port is where its telemetry comes from, and so changes with each "
         "start of the daemon; it is learnt from a datagram of the telemetry. Where kestrelshare "
         "runs, the command goes by way of it, beside the main application; else the daemon's "
         "metrics "
         "tell the port. Nobody acknowledges "
         "a command: the telemetry shows what the camera did, see --wait.\n"
         "Exit code: 0; 1 when something is wrong with the command or the network; 3 when the "
         "effect was waited for and not seen.\n\n"
         "  kestrelctl command record start\n"
         "  kestrelctl command iso 400 --wait\n"
         "  kestrelctl command wb custom 5600\n"
         "  kestrelctl command --text '{\"cmd\":\"shot\"}' --to 127.0.0.1:40000";
}

}  // namespace

void AddCommandSubcommand(CLI::App& app) {
  CLI::App* const command =
      app.add_subcommand("command", "Sends one command of the main application to the daemon");
  const auto line = std::make_shared<CommandLine>();
  auto* const words =
      command->add_option("words", line->words, "The command and its words, see below")
          ->type_name("WORD");
  auto* const force =
      command->add_flag("--force", line->force, "Send words that no command is known to take");
  command->add_option("--text", line->json, "Send this text, as it is, behind the marker \"!\"")
      ->type_name("JSON")
      ->excludes(words)
      ->excludes(force);
  // What it was called before --json came to mean output everywhere.
  command->add_option("--json", line->json, "")->group("")->excludes(words)->excludes(force);
  command->add_flag("--wait", line->wait, "Stay until the telemetry shows the effect");
  command
      ->add_option("--timeout", line->timeout_s,
                   "Wait no longer than so many seconds; settings are told of once a second")
      ->check(NumberBetween(0.1, kMaxSeconds))
      ->type_name("SECONDS")
      ->capture_default_str();
  auto* const repeat = command->add_option("--repeat", line->times, "Send it so many times")
                           ->check(WholeNumberBetween(1, kMaxTimes))
                           ->type_name("TIMES");
  command
      ->add_option("--rate", line->times_per_second,
                   "With --repeat: so many times a second (default: as fast as they go)")
      ->check(NumberBetween(0.001, kMaxRate))
      ->type_name("NUMBER")
      ->needs(repeat);
  command->add_option("--listen", line->listen, "Where the daemon sends its telemetry")
      ->type_name("HOST:PORT")
      ->check(HostPortValidator())
      ->default_str(kTelemetryPlaceText);
  command->add_option("--to", line->to, "The daemon's command port, instead of learning it")
      ->type_name("HOST:PORT")
      ->check(HostPortValidator());
  command->footer(Footer());
  command->callback([line] { RunCommand(*line); });
}

}  // namespace kestrelbridge::tools
