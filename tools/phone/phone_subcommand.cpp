#include "tools/phone/phone_subcommand.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "tools/common/host_port.h"
#include "tools/common/json_text.h"
#include "tools/common/number_option.h"
#include "tools/common/run_end.h"
#include "tools/common/stream_report.h"
#include "tools/common/tool_error.h"
#include "tools/common/udp_socket.h"
#include "tools/common/video_output.h"
#include "tools/phone/simulated_phone.h"

namespace kestrelbridge::tools {
namespace {

using std::chrono::duration;
using std::chrono::steady_clock;

constexpr double kMaxSeconds = 1e7;

struct CommandLine {
  std::string to = "192.168.2.1:9004";
  std::uint16_t local_port = 0;
  double duration_s = 0;
  std::string output;
  bool force = false;
  double silence_after_s = 0;
  CLI::Option* silence_option = nullptr;
  bool no_acknowledge = false;
  bool json = false;
  PhoneOptions phone;
};

void Report(std::FILE* file, const SimulatedPhone& phone, const ReportClock& clock) {
  const StreamCounters& stream = phone.Stream();
  std::fprintf(file,
               "%.0f s: datagrams %llu, %.2f Mbit/s, gaps %llu, reordered %llu, foreign %llu\n",
               clock.seconds(), Ull(stream.datagrams), clock.megabits_per_second(),
               Ull(stream.gaps), Ull(stream.reordered), Ull(phone.Counters().foreign_datagrams));
}

constexpr SummaryLine<StreamCounters> kStreamSummary[] = {
    {"datagrams", &StreamCounters::datagrams},
    {"bytes", &StreamCounters::bytes},
    {"command_data", &StreamCounters::command_data},
    {"video", &StreamCounters::video},
    {"other_kinds", &StreamCounters::other_kinds},
    {"bad_datagrams", &StreamCounters::bad_datagrams},
    {"gaps", &StreamCounters::gaps},
    {"reordered", &StreamCounters::reordered},
    {"units", &StreamCounters::units},
    {"broken_units", &StreamCounters::broken_units},
};
constexpr SummaryLine<PhoneCounters> kPhoneSummary[] = {
    {"foreign_datagrams", &PhoneCounters::foreign_datagrams},
    {"keepalives_sent", &PhoneCounters::keepalives_sent},
    {"acknowledgements_sent", &PhoneCounters::acknowledgements_sent},
    {"send_failures", &PhoneCounters::send_failures},
};

// All counters, and the bit rate since the last line.
void ReportJson(std::FILE* file, const SimulatedPhone& phone, const ReportClock& clock) {
  std::string members;
  AppendJsonMembers(members, kStreamSummary, phone.Stream());
  AppendJsonMembers(members, kPhoneSummary, phone.Counters());
  std::fprintf(file, "{%s,\"seconds\":%.0f,\"megabits_per_second\":%.2f%s}\n", JsonTime().c_str(),
               clock.seconds(), clock.megabits_per_second(), members.c_str());
}

void PrintSummary(std::FILE* file, const SimulatedPhone& phone) {
  std::fprintf(file, "summary\n");
  PrintSummaryLines(file, kStreamSummary, phone.Stream());
  PrintSummaryLines(file, kPhoneSummary, phone.Counters());
}

void RunPhone(CommandLine& line) {
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);  // whole lines also into a pipe
  std::FILE* const report = line.output == "-" ? stderr : stdout;
  line.phone.to = *ParseHostPort(line.to);
  line.phone.acknowledge = !line.no_acknowledge;
  if (line.silence_option->count() != 0) {
    line.phone.silence_after = duration<double>(line.silence_after_s);
  }
  if (line.phone.to.port == 0) {
    throw ToolError("--to " + line.to + ": port 0 cannot be sent to");
  }
  RunEnd end(line.duration_s);
  VideoOutput output(line.output, line.force);
  const UdpSocket socket(UdpPeer{.port = line.local_port});
  bool reader_gone = false;
  SimulatedPhone phone(line.phone, socket,
                       [&](auto unit) { reader_gone = reader_gone || !output.Write(unit, end); });
  std::fprintf(line.json ? stderr : report, "sending to %s from port %u\n", line.to.c_str(),
               unsigned{socket.Local().port});
  // Whose closed pipe ends the run.
  const int watched = output.descriptor() != -1 ? output.descriptor() : STDOUT_FILENO;
  ReportClock clock(steady_clock::now());
  for (bool ended = false; !ended;) {
    phone.Receive();
    const SteadyTime now = steady_clock::now();
    phone.Send(now);
    if (clock.IsDue(phone.Stream().bytes, now)) {
      (line.json ? ReportJson : Report)(report, phone, clock);
    }
    const auto pause = std::min(phone.NextSend(), clock.NextReport()) - now;
    ended = reader_gone || end.WaitForInput(socket.Descriptor(), pause, watched);
  }
  output.Close();
  PrintSummary(line.json ? stderr : report, phone);
}

}  // namespace

void AddPhoneSubcommand(CLI::App& app) {
  CLI::App* const command = app.add_subcommand(
      "phone", "Simulated phone app: talks to the camera through the box and checks the answers");
  command->footer(
      "Ctrl-C ends it with the summary. Run it on a machine in the box's access-point network, "
      "whose way to the camera's address leads through the box.");
  const auto line = std::make_shared<CommandLine>();
  command->add_option("--to", line->to, "The camera's address, as the phone knows it")
      ->type_name("HOST:PORT")
      ->check(HostPortValidator())
      ->capture_default_str();
  command->add_option("--local-port", line->local_port, "Port to send from; 0: a free one")
      ->check(NumberBetween(0, UINT16_MAX))
      ->capture_default_str();
  command->add_option("--duration", line->duration_s, "End after so many seconds (default: never)")
      ->check(NumberBetween(0.01, kMaxSeconds));
  command->add_option("--rate", line->phone.keepalives_per_second, "Keepalives a second")
      ->check(NumberBetween(0.1, 1000))
      ->capture_default_str();
  command->add_flag("--no-acknowledge", line->no_acknowledge,
                    "Send no unit acknowledgements, only keepalives");
  line->silence_option =
      command
          ->add_option("--silence-after", line->silence_after_s,
                       "Send nothing any more so many seconds after the first keepalive, and still "
                       "receive")
          ->check(NumberBetween(0, kMaxSeconds))
          ->type_name("SECONDS");
  command
      ->add_option("--output", line->output,
                   "Write every whole unit to this file; - is standard output, and the report goes "
                   "to standard error then")
      ->type_name("FILE");
  command->add_flag("--force", line->force, "Replace the file, should it exist");
  command->add_flag("--json", line->json,
                    "A JSON object a second with all counters; the summary goes to standard error");
  command->callback([line] { RunPhone(*line); });
}

}  // namespace kestrelbridge::tools
