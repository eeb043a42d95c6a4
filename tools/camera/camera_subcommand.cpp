#include "tools/camera/camera_subcommand.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "tools/camera/camera_assignment.h"
#include "tools/camera/camera_journal.h"
#include "tools/camera/clip.h"
#include "tools/camera/simulated_camera.h"
#include "tools/common/default_clip.h"
#include "tools/common/host_port.h"
#include "tools/common/number_option.h"
#include "tools/common/stop_signal.h"
#include "tools/common/stream_report.h"
#include "tools/common/udp_socket.h"

namespace kestrelbridge::tools {
namespace {

using std::chrono::duration;
using std::chrono::steady_clock;

// After the clip's last unit, for the acknowledgements that are still on their way.
constexpr std::chrono::seconds kAfterClip{1};
constexpr std::chrono::milliseconds kLastPackets{200};
constexpr int kNoStopSignal = -1;
constexpr double kMaxSeconds = 1e7;
constexpr double kMaxSeed = 4'294'967'295;

struct CommandLine {
  std::string listen = "127.0.0.1:9010";
  std::string clip;
  std::string journal;
  std::vector<std::string> assignments;
  double duration_s = 0;
  double silence_after_s = 0;
  CLI::Option* duration_option = nullptr;
  CLI::Option* silence_option = nullptr;
  CameraOptions camera;
};

void WarnOfShortStartCodes(std::span<const AccessUnit> units) {
  const auto numbers = UnitsWithoutLongStartCode(units);
  if (!numbers.empty()) {
    std::fprintf(stderr,
                 "warning: unit %zu%s opens with no 4-byte start code; the daemon acknowledges "
                 "such units, but does not publish them\n",
                 numbers.front(),
                 numbers.size() == 1
                     ? ""
                     : (" (and " + std::to_string(numbers.size() - 1) + " more)").c_str());
  }
}

// Waits for a packet, the stop signal or the time. True when the stop signal came.
bool WaitFor(int socket, int stop_signal, SteadyTime until) {
  std::array<pollfd, 2> descriptors = {{{.fd = socket, .events = POLLIN, .revents = 0},
                                        {.fd = stop_signal, .events = POLLIN, .revents = 0}}};
  const auto wait = std::max(std::chrono::nanoseconds(until - steady_clock::now()),
                             std::chrono::nanoseconds::zero());
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(wait);
  const timespec timeout = {.tv_sec = static_cast<std::time_t>(seconds.count()),
                            .tv_nsec = static_cast<long>((wait - seconds).count())};
  const int ready = ppoll(descriptors.data(), descriptors.size(), &timeout, nullptr);
  return ready > 0 && descriptors[1].revents != 0;
}

void Report(const CameraCounters& counters, const ReportClock& clock) {
  if (counters.connection_requests != 0) {  // else it is still waiting, which has been said
    std::printf(
        "%.0f s: units %llu, datagrams %llu, %.2f Mbit/s, acknowledged %llu, "
        "keepalives %llu\n",
        clock.seconds(), Ull(counters.units_sent), Ull(counters.datagrams_sent),
        clock.megabits_per_second(), Ull(counters.acknowledged), Ull(counters.keepalives));
  }
}

constexpr SummaryLine<CameraCounters> kSummary[] = {
    {"units_sent", &CameraCounters::units_sent},
    {"datagrams_sent", &CameraCounters::datagrams_sent},
    {"bytes_sent", &CameraCounters::bytes_sent},
    {"command_data_sent", &CameraCounters::command_data_sent},
    {"datagrams_lost", &CameraCounters::datagrams_lost},
    {"datagrams_duplicated", &CameraCounters::datagrams_duplicated},
    {"datagrams_reordered", &CameraCounters::datagrams_reordered},
    {"datagrams_corrupted", &CameraCounters::datagrams_corrupted},
    {"send_failures", &CameraCounters::send_failures},
    {"schedule_slips", &CameraCounters::schedule_slips},
    {"connection_requests", &CameraCounters::connection_requests},
    {"keepalives", &CameraCounters::keepalives},
    {"acknowledged", &CameraCounters::acknowledged},
    {"commands", &CameraCounters::commands},
    {"bad_packets", &CameraCounters::bad_packets},
    {"foreign_packets", &CameraCounters::foreign_packets},
};

// What arrives whole, if nothing else is lost than what the camera lost.
constexpr SummaryLine<ForecastCounters> kForecastSummary[] = {
    {"video_datagrams", &ForecastCounters::video_datagrams},
    {"command_data_datagrams", &ForecastCounters::command_data_datagrams},
    {"other_datagrams", &ForecastCounters::other_datagrams},
    {"stray_datagrams", &ForecastCounters::stray_datagrams},
    {"whole_units", &ForecastCounters::whole_units},
    {"whole_bytes", &ForecastCounters::whole_bytes},
    {"broken_units", &ForecastCounters::broken_units},
    {"odd_units", &ForecastCounters::odd_units},
};

void PrintSummary(const SimulatedCamera& camera) {
  camera.BadPackets().PrintRepeats();
  std::printf("summary\n");
  PrintSummaryLines(stdout, kSummary, camera.Counters());
  PrintSummaryLines(stdout, kForecastSummary, camera.Forecast());
}

// When the tool ends by itself, as things stand.
SteadyTime EndTime(const CommandLine& line, const SimulatedCamera& camera, SteadyTime start) {
  if (line.duration_option->count() != 0) {
    return start +
           std::chrono::duration_cast<steady_clock::duration>(duration<double>(line.duration_s));
  }
  return camera.ClipEnd() ? *camera.ClipEnd() + kAfterClip : SteadyTime::max();
}

// Runs the camera until its time is over or the stop signal comes.
void Stream(SimulatedCamera& camera, const CommandLine& line, int socket, int stop_signal) {
  const SteadyTime start = steady_clock::now();
  ReportClock clock(start);
  SteadyTime now = start;
  for (;;) {
    const SteadyTime end = EndTime(line, camera, start);
    if (now >= end ||
        WaitFor(socket, stop_signal, std::min({end, camera.NextSend(), clock.NextReport()}))) {
      return;
    }
    now = steady_clock::now();
    camera.Receive(now);
    camera.Send(now);
    if (clock.IsDue(camera.Counters().bytes_sent, now)) {
      Report(camera.Counters(), clock);
    }
  }
}

// Takes the acknowledgements that are still on their way when the stream was stopped in its midst.
void TakeLastPackets(SimulatedCamera& camera, int socket) {
  const SteadyTime end = steady_clock::now() + kLastPackets;
  for (SteadyTime now = steady_clock::now(); now < end; now = steady_clock::now()) {
    WaitFor(socket, kNoStopSignal, end);
    camera.Receive(now);
  }
}

void RunCamera(CommandLine& line) {
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);  // whole lines also into a pipe
  if (line.silence_option->count() != 0) {
    line.camera.silence_after = duration<double>(line.silence_after_s);
  }
  line.camera.start = StartModel(line.assignments);
  const auto clip = ReadClip(line.clip.empty() ? DefaultClip() : line.clip);
  const auto units = CutClip(clip);
  WarnOfShortStartCodes(units);
  CameraJournal journal(line.journal);
  const UdpSocket socket(*ParseHostPort(line.listen));
  const int stop_signal = OpenStopSignal();
  SimulatedCamera camera(line.camera, units, socket, journal);
  std::printf("waiting for a connection request on %s\n", HostPortText(socket.Local()).c_str());
  Stream(camera, line, socket.Descriptor(), stop_signal);
  TakeLastPackets(camera, socket.Descriptor());
  PrintSummary(camera);
}

void AddStreamOptions(CLI::App& command, CommandLine& line) {
  command.add_option("--listen", line.listen, "Where to wait for the daemon; port 0: a free one")
      ->type_name("HOST:PORT")
      ->check(HostPortValidator())
      ->capture_default_str();
  command
      .add_option(
          "--clip", line.clip,
          "H.264 file to stream, Annex B byte stream (default: the test pattern that comes along)")
      ->type_name("FILE");
  command.add_option("--fps", line.camera.units_per_second, "Access units a second")
      ->check(NumberBetween(0.1, 20'000))
      ->capture_default_str();
  command.add_flag("--loop", line.camera.loop, "Start the clip again after its end");
  command
      .add_option("--datagram-size", line.camera.datagram_size,
                  "Longest video datagram in bytes, its 20-byte wrapper included")
      ->check(NumberBetween(kMinDatagramSize, kMaxDatagramSize))
      ->capture_default_str();
  line.duration_option =
      command
          .add_option("--duration", line.duration_s,
                      "End after so many seconds, waiting included (default: one second after the "
                      "clip's end, or never with --loop)")
          ->check(NumberBetween(0.01, kMaxSeconds));
  command
      .add_option("--journal", line.journal, "Record every unit sent and its faults in this file")
      ->type_name("FILE");
  command
      .add_option(
          "--set", line.assignments,
          "State at the start, in words as telemetry reports them, such as iso_set=400; may "
          "repeat. A wrong NAME or WORD lists those that exist")
      ->type_name("NAME=WORD")
      ->allow_extra_args(false)
      ->check(AssignmentValidator());
}

void AddFaultOptions(CLI::App& command, CommandLine& line) {
  CameraOptions& camera = line.camera;
  const auto add_rate = [&](const char* name, double& rate, const char* help) {
    command.add_option(name, rate, std::string("Percent of the video datagrams that ") + help)
        ->check(NumberBetween(0, 100))
        ->capture_default_str()
        ->group("Faults");
  };
  add_rate("--loss", camera.faults.loss, "are lost");
  add_rate("--duplicate", camera.faults.duplicate, "arrive twice");
  add_rate("--reorder", camera.faults.reorder, "arrive after the next one");
  add_rate("--corrupt", camera.faults.corrupt, "arrive with one wrong byte");
  command.add_option("--seed", camera.seed, "The same seed, the same faults")
      ->check(NumberBetween(0, kMaxSeed))
      ->capture_default_str()
      ->group("Faults");
  line.silence_option =
      command
          .add_option("--silence-after", line.silence_after_s,
                      "Send nothing any more so many seconds after streaming began, and still "
                      "receive; only --duration or a signal ends the tool then")
          ->check(NumberBetween(0, kMaxSeconds))
          ->group("Faults");
}

}  // namespace

void AddCameraSubcommand(CLI::App& app) {
  CLI::App* const command =
      app.add_subcommand("camera",
                         "Simulated camera: streams an H.264 clip to the daemon, pushes its state, "
                         "checks and obeys what comes back");
  command->footer(
      "Ctrl-C ends it with the summary. Try: kestrelctl camera --loop, and beside "
      "it: kestrelbridge --host 127.0.0.1 --port 9010");
  const auto line = std::make_shared<CommandLine>();
  AddStreamOptions(*command, *line);
  AddFaultOptions(*command, *line);
  command->callback([line] { RunCamera(*line); });
}

}  // namespace kestrelbridge::tools
