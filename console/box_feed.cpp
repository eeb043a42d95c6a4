#include "console/box_feed.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <span>
#include <utility>

#include "base/run_paths.h"
#include "base/shared_memory.h"
#include "kestrelbridge/frame_block.h"
#include "tools/common/tool_error.h"

namespace kestrelbridge::console {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kLookPeriod{1};
constexpr std::size_t kLongestRecord = 65'536;  // any datagram, so that none is cut
constexpr std::size_t kMostRecords = 100;       // for a loop that does not come for them

std::string WhyNotSent(int error) {
  if (error == ENOENT || error == ECONNREFUSED) {
    return "kestrelshare does not run (systemctl status kestrelbridge-share)";
  }
  if (error == EACCES) {
    return "this console may not command: its user is not in the group kestrelbridge";
  }
  return std::string("the share does not take it: ") + std::strerror(error);
}

}  // namespace

BoxFeed::BoxFeed(std::function<void()> wake, int stop_signal)
    : wake_(std::move(wake)),
      stop_signal_(stop_signal),
      bell_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      buffer_(kLongestRecord) {
  if (bell_ == -1) {
    throw tools::ToolError(std::string("no descriptor left: ") + std::strerror(errno));
  }
  thread_ = std::thread([this] { Run(); });
}

BoxFeed::~BoxFeed() {
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
  }
  eventfd_write(bell_, 1);
  thread_.join();
  close(bell_);
}

std::optional<BoxNews> BoxFeed::Take() {
  const std::lock_guard lock(mutex_);
  if (!std::exchange(has_news_, false)) {
    return std::nullopt;
  }
  BoxNews taken = news_;
  news_.records.clear();
  news_.failed.clear();
  return taken;
}

void BoxFeed::Tell() {
  {
    const std::lock_guard lock(mutex_);
    has_news_ = true;
  }
  wake_();
}

void BoxFeed::Send(OutgoingCommand command) {
  {
    const std::lock_guard lock(mutex_);
    outgoing_.push_back(std::move(command));
  }
  eventfd_write(bell_, 1);
}

void BoxFeed::Run() {
  pthread_setname_np(pthread_self(), "feed");
  auto next_look = Clock::now();
  for (;;) {
    {
      const std::lock_guard lock(mutex_);
      if (ending_) {
        return;
      }
    }
    if (Clock::now() >= next_look) {
      Look();
      next_look = Clock::now() + kLookPeriod;
    }
    Wait(next_look);
    SendCommands();
    TakeRecords();
  }
}

// Once a second.
void BoxFeed::Look() {
  if (telemetry_.Descriptor() == -1) {
    [[maybe_unused]] const bool connected = telemetry_.Connect(kShareTelemetryPath);
  }
  auto metrics = tools::FreshMetrics();
  const bool has_daemon_block = HolderOfBlock(kFrameBlockName) != 0;
  {
    const std::lock_guard lock(mutex_);
    news_.metrics = std::move(metrics);
    news_.has_daemon_block = has_daemon_block;
    news_.has_share = telemetry_.Descriptor() != -1;
  }
  Tell();
}

void BoxFeed::TakeRecords() {
  bool any = false;
  while (telemetry_.Descriptor() != -1) {
    const auto bytes = telemetry_.Receive(buffer_);
    if (bytes.empty()) {
      break;
    }
    auto record = tools::ParseTelemetryRecord(bytes);
    const std::lock_guard lock(mutex_);
    if (record.type != tools::RecordType::kUnknown && news_.records.size() < kMostRecords) {
      news_.records.push_back(std::move(record));
      any = true;
    }
  }
  if (any) {
    Tell();
  }
}

void BoxFeed::SendCommands() {
  std::vector<OutgoingCommand> commands;
  {
    const std::lock_guard lock(mutex_);
    commands.swap(outgoing_);
  }
  for (const OutgoingCommand& command : commands) {
    tools::LocalSocket control;
    const std::span<const std::uint8_t> bytes(
        reinterpret_cast<const std::uint8_t*>(command.text.data()), command.text.size());
    if (control.Connect(kShareControlPath) && control.Send(bytes)) {
      continue;
    }
    std::string why = WhyNotSent(errno);
    {
      const std::lock_guard lock(mutex_);
      news_.failed.push_back({.ticket = command.ticket, .why = std::move(why)});
    }
    Tell();
  }
}

void BoxFeed::Wait(Clock::time_point until) {
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(std::max(until - Clock::now(), {}));
  std::array<pollfd, 3> descriptors = {
      {{.fd = bell_, .events = POLLIN, .revents = 0},
       {.fd = telemetry_.Descriptor(), .events = POLLIN, .revents = 0},
       {.fd = stop_signal_, .events = POLLIN, .revents = 0}}};
  poll(descriptors.data(), descriptors.size(), static_cast<int>(left.count()));
  eventfd_t rings = 0;
  eventfd_read(bell_, &rings);
  if (descriptors[2].revents != 0) {
    stop_signal_ = -1;  // it stays readable
    {
      const std::lock_guard lock(mutex_);
      news_.stop = true;
    }
    Tell();
  }
}

}  // namespace kestrelbridge::console
