#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "load.h"
#include "measurements.h"
#include "program.h"
#include "tools/common/tool_error.h"
#include "tools/common/udp_socket.h"

namespace kestrelbridge::bench {
namespace {

constexpr UdpPeer Place(std::uint32_t loopback, std::uint16_t port) {
  return {.address = loopback, .port = port};
}
constexpr std::uint16_t kSharePort = 5001;
constexpr std::uint16_t kMainAppPort = 5000;
constexpr char kFolder[] = "/run/kestrelbridge";  // of the stage
constexpr int kConsumers = 20;                    // the first of them never reads
constexpr int kRecords = 1000;
constexpr std::size_t kRecordSize = 600;  // a text record's
constexpr std::chrono::milliseconds kPeriod{2};
constexpr std::chrono::milliseconds kGivenUp{200};
constexpr double kMicrosecondsPerSecond = 1e6;

using Record = std::array<std::uint8_t, kRecordSize>;

// A program at the share's telemetry socket.
class Consumer {
 public:
  Consumer() : socket_(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (std::string(kFolder) + "/telemetry").copy(address.sun_path, sizeof address.sun_path - 1);
    const auto* const to = reinterpret_cast<const sockaddr*>(&address);
    const Clock::time_point given_up = Clock::now() + std::chrono::seconds{10};
    while (connect(socket_, to, sizeof address) != 0) {
      if (Clock::now() > given_up) {
        throw tools::ToolError("kestrelshare does not listen");
      }
      usleep(10'000);
    }
  }
  ~Consumer() { close(socket_); }
  Consumer(const Consumer&) = delete;
  Consumer& operator=(const Consumer&) = delete;

  [[nodiscard]] bool Take(const Record& record) const {
    Record taken;
    return recv(socket_, taken.data(), taken.size(), MSG_DONTWAIT) ==
               static_cast<ssize_t>(taken.size()) &&
           taken == record;
  }

 private:
  int socket_;
};

// Spins until `arrived` holds; microseconds since `sent`.
template <typename Arrived>
double Await(Clock::time_point sent, Arrived arrived) {
  Clock::time_point now = sent;
  while (!arrived() && now - sent < kGivenUp) {
    now = Clock::now();
  }
  return Seconds(Clock::now() - sent).count() * kMicrosecondsPerSecond;
}

struct Samples {
  std::vector<double> main_app;
  std::vector<double> last_consumer;
};

// Record after record to the port, until the main application has it, and the last of the
// consumers.
Samples Measure(std::uint16_t port, const std::vector<std::unique_ptr<Consumer>>& consumers) {
  const tools::UdpSocket daemon(Place(Loopback(), 0));
  const tools::UdpSocket main_app(Place(Loopback(), kMainAppPort));
  std::array<std::uint8_t, 2 * kRecordSize> buffer{};
  Samples samples;
  Record record{};
  Clock::time_point due = Clock::now();
  for (int i = 0; i < kRecords; ++i, due += kPeriod) {
    WaitUntil(due, false);
    record[1] = static_cast<std::uint8_t>(i);
    record[2] = static_cast<std::uint8_t>(i >> 8);
    const Clock::time_point sent = Clock::now();
    if (!daemon.Send(record, Place(Loopback(), port))) {
      throw tools::ToolError("the record cannot be sent");
    }
    samples.main_app.push_back(Await(sent, [&] {
      std::span<const std::uint8_t> datagram;
      UdpPeer from;
      return main_app.Receive(buffer, datagram, from) && std::ranges::equal(datagram, record);
    }));
    for (std::size_t c = 1; c < consumers.size(); ++c) {
      const double us = Await(sent, [&] { return consumers[c]->Take(record); });
      if (c + 1 == consumers.size()) {
        samples.last_consumer.push_back(us);
      }
    }
  }
  return samples;
}

Row Added(const char* what, const std::vector<double>& added_us) {
  return MakeRow({.what = what,
                  .other = "",
                  .unit = "us",
                  .decimals = 1,
                  .ours = added_us,
                  .others = {},
                  .aim = Comparison::Aim::kOursBelow,
                  .limit = 500});
}

}  // namespace

Findings MeasureShare(const Setting& setting) {
  std::vector<double> main_app;
  std::vector<double> crowded;
  std::vector<double> last;
  for (int repetition = 1; repetition <= setting.repetitions; ++repetition) {
    std::fprintf(stderr, "    share, repetition %d of %d\n", repetition, setting.repetitions);
    const double direct = Quantile(Measure(kMainAppPort, {}).main_app, 0.99);
    const Program share({.command = {setting.programs + "/kestrelshare", "--group", ""},
                         .core = setting.cores.subject});
    AwaitUdpPort(kSharePort);
    main_app.push_back(Quantile(Measure(kSharePort, {}).main_app, 0.99) - direct);
    std::vector<std::unique_ptr<Consumer>> consumers;
    for (int c = 0; c < kConsumers; ++c) {
      consumers.push_back(std::make_unique<Consumer>());
    }
    const Samples samples = Measure(kSharePort, consumers);
    crowded.push_back(Quantile(samples.main_app, 0.99) - direct);
    last.push_back(Quantile(samples.last_consumer, 0.99) - direct);
  }
  return {.rows = {Added("telemetry, what the share adds, p99", main_app),
                   Added("the same beside 20 consumers, one of them stopped", crowded),
                   Added("to the last of these consumers, p99", last)},
          .notes = {}};
}

}  // namespace kestrelbridge::bench
