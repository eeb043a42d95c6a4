// What each viewer of the console costs: processor time and memory of kestrelconsole with 0, 1, 10,
// 30 and 60 viewers of a stream of 2.4 Mbit/s; how many units they lost, and how long 95 % of the
// units took from the ring to the viewer.
//
//   bench_console_viewers [SECONDS]     for each number of viewers; default 10

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/byte_order.h"
#include "console/unit_history.h"
#include "console/web_client.h"
#include "tools/common/start_program.h"
#include "tools/demo/stage.h"
#include "video/frame_buffers.h"
#include "video/numbered_unit.h"

namespace kestrelbridge {
namespace {

using test::NumberedUnit;
using test::WebSocketClient;
using Clock = std::chrono::steady_clock;

constexpr std::uint16_t kPort = 8080;
constexpr int kUnitsASecond = 30;
constexpr std::size_t kUnitSize = 10'000;  // 2.4 Mbit/s
constexpr std::size_t kKeyUnitSize = 40'000;

double ProcessorSeconds(pid_t process) {
  clockid_t clock{};
  timespec time{};
  clock_getcpuclockid(process, &clock);
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// Kilobytes that are this process's own: the ring is everybody's.
long OwnMemory(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/smaps_rollup");
  for (std::string word; file >> word;) {
    if (word == "Anonymous:") {
      file >> word;
      return std::atol(word.c_str());
    }
  }
  return 0;
}

// When the unit of that number was published, nanoseconds: one writer, many readers.
constexpr std::size_t kMostUnits = 1 << 16;
std::array<std::atomic<std::int64_t>, kMostUnits> published;

class Publisher {
 public:
  Publisher() : thread_([this] { Run(); }) {}
  ~Publisher() {
    stopping_ = true;
    thread_.join();
  }

 private:
  void Run() {
    auto due = Clock::now();
    for (std::uint32_t number = 1; !stopping_; ++number) {
      const auto unit = NumberedUnit(number, number % 32 == 7 ? kKeyUnitSize : kUnitSize - 1'000);
      published[number % kMostUnits] = Clock::now().time_since_epoch().count();
      PublishVideoUnit(unit);
      due += std::chrono::microseconds{1'000'000 / kUnitsASecond};
      std::this_thread::sleep_until(due);
    }
  }
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

struct Viewer {
  Viewer() : socket(kPort, "/video"), thread([this] { Run(); }) {}
  void End() {
    stopping = true;
    thread.join();
  }

  void Run() {
    std::uint32_t last = 0;
    while (!stopping) {
      const test::Frame frame = socket.Receive();
      if (frame.opcode == 0 || frame.payload.size() < console::kUnitHeaderSize + 8) {
        continue;
      }
      const std::uint32_t number = LoadLe32(
          {reinterpret_cast<const std::uint8_t*>(frame.payload.data()), frame.payload.size()},
          console::kUnitHeaderSize + 4);
      delays.push_back(Clock::now().time_since_epoch().count() - published[number % kMostUnits]);
      lost += last != 0 ? number - last - 1 : 0;
      last = number;
      ++units;
    }
  }
  std::atomic<bool> stopping{false};
  std::atomic<std::uint64_t> units{0};
  std::atomic<std::uint64_t> lost{0};
  std::vector<std::int64_t> delays;  // nanoseconds; to be read behind the thread's end
  WebSocketClient socket;
  std::thread thread;
};

struct Figures {
  double processor_ms_a_second = 0;
  long memory_kb = 0;
  std::uint64_t units = 0;
  std::uint64_t lost = 0;
  double delay_ms = 0;
};

// Of the delays in steady state, the one that 95 of 100 keep below.
double Percentile95(std::vector<std::int64_t>& delays) {
  if (delays.empty()) {
    return 0;
  }
  const auto at = delays.begin() + static_cast<std::ptrdiff_t>(delays.size() * 95 / 100);
  std::nth_element(delays.begin(), at, delays.end());
  return static_cast<double>(*at) * 1e-6;
}

Figures Measure(pid_t console, int count, int seconds) {
  std::vector<std::unique_ptr<Viewer>> viewers;
  for (int i = 0; i < count; ++i) {
    viewers.push_back(std::make_unique<Viewer>());
  }
  std::this_thread::sleep_for(std::chrono::seconds{2});  // what they get at once is no steady state
  const double before = ProcessorSeconds(console);
  const auto start = Clock::now();
  std::this_thread::sleep_for(std::chrono::seconds{seconds});
  const std::chrono::duration<double> elapsed = Clock::now() - start;
  Figures figures;
  figures.processor_ms_a_second = (ProcessorSeconds(console) - before) * 1'000 / elapsed.count();
  figures.memory_kb = OwnMemory(console);
  std::vector<std::int64_t> delays;
  for (const auto& viewer : viewers) {
    viewer->End();
    figures.units += viewer->units;
    figures.lost += viewer->lost;
    const std::size_t at_once = std::min<std::size_t>(viewer->delays.size(), kUnitsASecond * 2);
    delays.insert(delays.end(), viewer->delays.begin() + static_cast<std::ptrdiff_t>(at_once),
                  viewer->delays.end());
  }
  figures.delay_ms = Percentile95(delays);
  return figures;
}

int Run(const std::string& program, int seconds) {
  tools::EnterStage();
  if (InitFrameBuffers() != 0) {
    return 1;
  }
  const Publisher publisher;
  const pid_t console = tools::StartProgram({.command = {program}, .error = STDERR_FILENO});
  std::this_thread::sleep_for(std::chrono::seconds{3});
  Figures first;
  std::printf(
      "viewers  ms/s of processor  ms/s each  own memory kB  kB each    units  lost  p95 ms\n");
  for (const int count : {0, 1, 10, 30, 60}) {
    const Figures figures = Measure(console, count, seconds);
    first = count == 0 ? figures : first;
    const double each = count == 0 ? 0 : 1.0 / count;
    std::printf("%7d  %17.2f  %9.3f  %13ld  %7.1f  %7llu  %4llu  %6.2f\n", count,
                figures.processor_ms_a_second,
                (figures.processor_ms_a_second - first.processor_ms_a_second) * each,
                figures.memory_kb, static_cast<double>(figures.memory_kb - first.memory_kb) * each,
                static_cast<unsigned long long>(figures.units),
                static_cast<unsigned long long>(figures.lost), figures.delay_ms);
    std::fflush(stdout);
  }
  kill(console, SIGTERM);
  waitpid(console, nullptr, 0);
  return 0;
}

}  // namespace
}  // namespace kestrelbridge

int main(int argc, char** argv) {
  const std::string self = argv[0];
  const std::string program = self.substr(0, self.rfind('/') + 1) + "kestrelconsole";
  return kestrelbridge::Run(program, argc > 1 ? std::atoi(argv[1]) : 10);
}
