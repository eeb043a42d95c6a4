#include <chrono>
#include <cstdio>
#include <thread>

#include "measurements.h"
#include "subjects.h"

namespace kestrelbridge::bench {
namespace {

constexpr double kRateMbit = 40;
constexpr Seconds kVideoTime{3};
constexpr std::uint16_t kPeerPort = 9031;

struct Need {
  std::vector<double> us_per_megabit;
  std::vector<double> own_megabytes;
  std::vector<double> all_megabytes;
};

void MeasureOne(Subject& subject, DatagramStream& stream, void (*renumber)(DatagramStream&),
                bool pushes, Need& need) {
  Load load(subject.camera, stream, renumber);
  load.Run({.megabits_per_second = kRateMbit, .duration = Seconds{1}, .pushes = pushes});
  const auto before = subject.program->ProcessorTime();
  const LoadReport report =
      load.Run({.megabits_per_second = kRateMbit, .duration = kVideoTime, .pushes = pushes});
  const std::chrono::duration<double, std::micro> used = subject.program->ProcessorTime() - before;
  const Memory memory = subject.program->MemoryUse();
  need.us_per_megabit.push_back(used.count() / report.Megabits());
  need.own_megabytes.push_back(static_cast<double>(memory.own_bytes) / 1e6);
  need.all_megabytes.push_back(static_cast<double>(memory.own_bytes + memory.shared_bytes) / 1e6);
}

// What one would write on a command line for it: the units whole, in shared memory as large as our
// ring, nobody waits.
std::unique_ptr<Subject> StartPipeline(const Setting& setting) {
  auto subject = std::make_unique<Subject>();
  subject->program = std::make_unique<Program>(ProgramStart{
      .command =
          {"gst-launch-1.0",
           "-q",
           "udpsrc",
           "address=127.0.0.1",
           "port=" + std::to_string(kPeerPort),
           "buffer-size=10000000",
           "caps=application/x-rtp,media=video,clock-rate=90000,encoding-name=H264,payload=96",
           "!",
           "rtph264depay",
           "!",
           "h264parse",
           "!",
           "video/x-h264,stream-format=byte-stream,alignment=au",
           "!",
           "shmsink",
           "socket-path=/run/kestrelbridge-bench-shm",
           "shm-size=60000000",
           "wait-for-connection=false",
           "sync=false",
           "async=false"},
      .core = setting.cores.subject});
  AwaitUdpPort(kPeerPort);
  subject->camera.SetPeer({.address = Loopback(), .port = kPeerPort});
  return subject;
}

}  // namespace

Findings MeasurePeer(const Setting& setting) {
  DatagramStream stream = MakeCameraStream(setting.clip);
  DatagramStream rtp = RecordRtpStream(setting.clip);
  Need daemon;
  Need peer;
  for (int repetition = 1; repetition <= setting.repetitions; ++repetition) {
    std::fprintf(stderr, "    GStreamer, repetition %d of %d\n", repetition, setting.repetitions);
    MeasureOne(*StartDaemon(setting), stream, RenumberCameraStream, true, daemon);
    MeasureOne(*StartPipeline(setting), rtp, RenumberRtpStream, false, peer);
  }
  const Comparison half{.what = "",
                        .other = "GStreamer",
                        .unit = "",
                        .ours = {},
                        .others = {},
                        .aim = Comparison::Aim::kRatioAtMost,
                        .limit = 0.5};
  Comparison time = half;
  time.what = "CPU time per megabit, 40 Mbit/s";
  time.unit = "us";
  time.decimals = 0;
  time.ours = daemon.us_per_megabit;
  time.others = peer.us_per_megabit;
  Comparison own = half;
  own.what = "memory of its own";
  own.unit = "MB";
  own.decimals = 1;
  own.ours = daemon.own_megabytes;
  own.others = peer.own_megabytes;
  Comparison all = own;
  all.what = "memory with the shared blocks";
  all.aim = Comparison::Aim::kNone;
  all.ours = daemon.all_megabytes;
  all.others = peer.all_megabytes;
  return {.rows = {MakeRow(time), MakeRow(own), MakeRow(all)}, .notes = {}};
}

}  // namespace kestrelbridge::bench
