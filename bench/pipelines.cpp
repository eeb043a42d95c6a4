// What kestrelbridgesrc costs, and how late a picture leaves it. This process is the daemon's
// writer and the receiver; each pipeline runs in a process of its own:
//
//   RTP     kestrelbridgesrc ! rtph264pay ! udpsink, against a file behind the same payloader:
//   processor
//           time, and the time from the unit in the ring to its last packet
//   window  kestrelbridgesrc ! fakesink sync=true: from the ring to when it would be shown
//
// Takes the ring's name for itself: run it where no daemon does (scripts/bench does so).

#include <arpa/inet.h>
#include <gst/gst.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "bench/figures.h"
#include "kestrelbridge/frame_block.h"
#include "tools/camera/clip.h"
#include "tools/common/tool_error.h"
#include "video/frame_buffers.h"

namespace kestrelbridge::bench {
namespace {

constexpr int kUnitsPerSecond = 30;
constexpr int kWarmUpUnits =
    3 * kUnitsPerSecond;  // a keyframe comes, the line of the stamps settles
constexpr std::uint16_t kPort = 5600;
constexpr double kMsPerSecond = 1e3;

double Now(clockid_t clock = CLOCK_MONOTONIC) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// --- the pipeline's process
// -----------------------------------------------------------------------

// The time of each picture that is shown, to the parent.
void WriteTime(GstElement* /*sink*/, GstBuffer* /*buffer*/, GstPad* /*pad*/, gpointer pipe_end) {
  const double now = Now();
  if (write(GPOINTER_TO_INT(pipe_end), &now, sizeof now) != sizeof now) {
    std::_Exit(1);
  }
}

[[noreturn]] void RunPipeline(const std::string& words, int pipe_end) {
  gst_init(nullptr, nullptr);
  GError* error = nullptr;
  GstElement* pipeline = gst_parse_launch(words.c_str(), &error);
  if (error != nullptr) {
    std::fprintf(stderr, "%s\n", error->message);
    std::_Exit(1);
  }
  GstElement* window = gst_bin_get_by_name(GST_BIN(pipeline), "window");
  if (window != nullptr) {
    g_signal_connect(window, "handoff", G_CALLBACK(WriteTime), GINT_TO_POINTER(pipe_end));
  }
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  gst_bus_timed_pop_filtered(gst_element_get_bus(pipeline), GST_CLOCK_TIME_NONE,
                             static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_EOS));
  std::fprintf(stderr, "the pipeline has ended: %s\n", words.c_str());
  std::_Exit(1);
}

struct PipelineProcess {
  pid_t pid;
  int times;  // of the pictures shown

  double ProcessorSeconds() const {
    clockid_t clock{};
    clock_getcpuclockid(pid, &clock);
    return Now(clock);
  }
  void End() const {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    close(times);
  }
};

PipelineProcess Start(const std::string& words) {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) {
    throw tools::ToolError("no pipe to be had");
  }
  const pid_t pid = fork();
  if (pid == 0) {
    RunPipeline(words, ends[1]);
  }
  close(ends[1]);
  return {pid, ends[0]};
}

// --- the writer
// -----------------------------------------------------------------------------------

// Publishes the clip again and again, at its rate; tells when each unit went into the ring.
std::vector<double> Publish(const std::vector<tools::AccessUnit>& clip, int units,
                            const std::function<void(int)>& before_unit) {
  std::vector<double> times;
  const double begin = Now();
  for (int unit = 0; unit < units; ++unit) {
    before_unit(unit);
    const double due = begin + static_cast<double>(unit) / kUnitsPerSecond;
    while (Now() < due) {
      usleep(static_cast<useconds_t>(std::max(1.0, (due - Now()) * 1e6)));
    }
    times.push_back(Now());  // before: the pipeline may have sent it when the call returns
    PublishVideoUnit(clip[static_cast<std::size_t>(unit) % clip.size()]);
  }
  return times;
}

// For each time there, how long after the latest time here that is not later it was.
std::vector<double> DelaysMs(const std::vector<double>& published, const std::vector<double>& seen,
                             double from) {
  std::vector<double> delays;
  for (const double time : seen) {
    if (time < from) {
      continue;
    }
    const auto next = std::ranges::upper_bound(published, time);
    if (next != published.begin()) {
      delays.push_back((time - *(next - 1)) * kMsPerSecond);
    }
  }
  return delays;
}

// --- RTP
// ------------------------------------------------------------------------------------------

// Notes when the last packet of each picture arrives (RTP's marker), until it is told to end.
class RtpReceiver {
 public:
  RtpReceiver() : socket_(socket(AF_INET, SOCK_DGRAM, 0)) {
    sockaddr_in here{};
    here.sin_family = AF_INET;
    here.sin_port = htons(kPort);
    here.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const timeval patience = {.tv_sec = 0, .tv_usec = 100'000};
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    if (bind(socket_, reinterpret_cast<const sockaddr*>(&here), sizeof here) != 0) {
      throw tools::ToolError("UDP port " + std::to_string(kPort) + " is taken");
    }
    thread_ = std::thread([this] { Receive(); });
  }
  RtpReceiver(const RtpReceiver&) = delete;
  RtpReceiver& operator=(const RtpReceiver&) = delete;
  ~RtpReceiver() { Times(); }

  // Ends it. Pictures before the first keyframe are none of ours.
  std::vector<double> Times() {
    ends_ = true;
    if (thread_.joinable()) {
      thread_.join();
      close(socket_);
    }
    return times_;
  }

 private:
  void Receive() {
    constexpr std::uint8_t kMarker = 0x80;  // of the packet's second byte
    std::array<std::uint8_t, 2048> packet{};
    while (!ends_) {
      if (recv(socket_, packet.data(), packet.size(), 0) > 2 && (packet[1] & kMarker) != 0) {
        times_.push_back(Now());
      }
    }
  }

  int socket_;
  std::atomic<bool> ends_{false};
  std::vector<double> times_;  // the thread's, until it has ended
  std::thread thread_;
};

struct RtpFigures {
  double processor_ms = 0;  // for a second of video
  std::vector<double> delays_ms;
};

RtpFigures MeasureRtp(const std::vector<tools::AccessUnit>& clip, const std::string& source,
                      int seconds) {
  const bool is_file = source.starts_with("multifilesrc");
  const PipelineProcess pipeline =
      Start(source + " ! rtph264pay config-interval=-1 ! udpsink host=127.0.0.1 port=" +
            std::to_string(kPort) + " sync=" + (is_file ? "true" : "false"));
  RtpReceiver receiver;
  double processor = 0;
  const auto published = Publish(clip, kWarmUpUnits + seconds * kUnitsPerSecond, [&](int unit) {
    processor = unit == kWarmUpUnits ? pipeline.ProcessorSeconds() : processor;
  });
  RtpFigures figures;
  figures.processor_ms = (pipeline.ProcessorSeconds() - processor) * kMsPerSecond / seconds;
  pipeline.End();
  figures.delays_ms = DelaysMs(published, receiver.Times(), published[kWarmUpUnits]);
  return figures;
}

void CompareRtp(const std::vector<tools::AccessUnit>& clip, const std::string& clip_path,
                int seconds) {
  std::vector<double> ours;
  std::vector<double> ratios;
  std::vector<double> delays;
  for (int turn = 0; turn < 3; ++turn) {
    const RtpFigures ring = MeasureRtp(clip, "kestrelbridgesrc", seconds);
    const RtpFigures file =
        MeasureRtp(clip, "multifilesrc loop=true location=" + clip_path + " ! h264parse", seconds);
    ours.push_back(ring.processor_ms);
    ratios.push_back(ring.processor_ms / file.processor_ms);
    delays.insert(delays.end(), ring.delays_ms.begin(), ring.delays_ms.end());
  }
  std::printf("RTP, processor time for a second: %.1f ms, %.2f x of a file's (aim: 12 ms, 1.5 x)\n",
              Median(ours), Median(ratios));
  std::printf("RTP, ring to the last packet: p50 %.2f ms, p99 %.2f ms, %zu units (aim: p99 3 ms)\n",
              Quantile(delays, 0.5), Quantile(delays, 0.99), delays.size());
}

// --- window
// ---------------------------------------------------------------------------------------

void MeasureWindow(const std::vector<tools::AccessUnit>& clip, int seconds) {
  const PipelineProcess pipeline =
      Start("kestrelbridgesrc ! fakesink name=window sync=true signal-handoffs=true");
  std::vector<double> shown;
  std::thread reader([&] {
    for (double time = 0; read(pipeline.times, &time, sizeof time) == sizeof time;) {
      shown.push_back(time);
    }
  });
  const auto published = Publish(clip, kWarmUpUnits + seconds * kUnitsPerSecond, [](int) {});
  usleep(200'000);  // the last one's time
  kill(pipeline.pid, SIGKILL);
  reader.join();
  pipeline.End();
  const auto delays = DelaysMs(published, shown, published[kWarmUpUnits]);
  const auto half = static_cast<long>(delays.size() / 2);
  std::printf(
      "window: %zu of %d shown; ring to window p50 %.1f ms, most %.1f ms; "
      "first half %.1f ms, second %.1f ms\n",
      delays.size(), seconds * kUnitsPerSecond, Quantile(delays, 0.5), std::ranges::max(delays),
      Median({delays.begin(), delays.begin() + half}),
      Median({delays.begin() + half, delays.end()}));
}

int Run(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: bench_pipelines CLIP SECONDS\n");
    return 1;
  }
  const std::vector<std::uint8_t> bytes = tools::ReadClip(argv[1]);
  const std::vector<tools::AccessUnit> clip = tools::CutClip(bytes);
  const int seconds = std::max(2, std::atoi(argv[2]));
  if (InitFrameBuffers() != 0) {
    return 1;
  }
  CompareRtp(clip, argv[1], seconds);
  MeasureWindow(clip, seconds);
  return 0;
}

}  // namespace
}  // namespace kestrelbridge::bench

int main(int argc, char** argv) {
  try {
    return kestrelbridge::bench::Run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_pipelines: %s\n", error.what());
    return 1;
  }
}
