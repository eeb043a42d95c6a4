// What the box tells of itself beside the picture: telemetry and the daemon's counters come in,
// commands go out, through files and sockets that anybody may hold up. So a thread of its own does
// it, and the loop finds the news in a basket.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tools/common/local_socket.h"
#include "tools/common/metrics_reading.h"
#include "tools/main_app/telemetry_records.h"

namespace kestrelbridge::console {

struct OutgoingCommand {
  std::uint64_t ticket = 0;  // the sender's own number
  std::string text;          // as the share takes it
};

struct FailedCommand {
  std::uint64_t ticket = 0;
  std::string why;
};

// What has come since the last look.
struct BoxNews {
  std::vector<tools::TelemetryRecord> records;
  bool has_share = false;                        // telemetry comes by a share that is there
  std::optional<tools::MetricsReading> metrics;  // the daemon's; nothing when it writes none
  bool has_daemon_block = false;                 // a daemon holds the ring, as far as can be seen
  std::vector<FailedCommand> failed;
  bool stop = false;  // a stop signal has come
};

class BoxFeed {
 public:
  // `wake` is called on the feed's thread after there are news; `stop_signal` is a descriptor of
  // tools/common/stop_signal.h.
  BoxFeed(std::function<void()> wake, int stop_signal);
  ~BoxFeed();
  BoxFeed(const BoxFeed&) = delete;
  BoxFeed& operator=(const BoxFeed&) = delete;

  // Nothing when nothing has come. Any thread.
  std::optional<BoxNews> Take();
  void Send(OutgoingCommand command);

 private:
  void Run();
  void Look();
  void TakeRecords();
  void SendCommands();
  void Wait(std::chrono::steady_clock::time_point until);
  void Tell();

  std::function<void()> wake_;
  int stop_signal_;
  int bell_;  // rung for a command, and at the end
  tools::LocalSocket telemetry_;
  std::vector<std::uint8_t> buffer_;
  std::mutex mutex_;  // of what follows
  BoxNews news_;
  bool has_news_ = false;
  std::vector<OutgoingCommand> outgoing_;
  bool ending_ = false;
  std::thread thread_;  // the last: it uses all of the above
};

}  // namespace kestrelbridge::console
