#include "tools/common/run_end.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <span>

#include "tools/common/stop_signal.h"

namespace kestrelbridge::tools {
namespace {

using std::chrono::nanoseconds;

constexpr std::chrono::milliseconds kGrace{500};

void Poll(std::span<pollfd> descriptors, nanoseconds timeout) {
  const auto wait = std::max(timeout, nanoseconds::zero());
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(wait);
  const timespec limit = {.tv_sec = static_cast<std::time_t>(seconds.count()),
                          .tv_nsec = static_cast<long>((wait - seconds).count())};
  if (ppoll(descriptors.data(), descriptors.size(), &limit, nullptr) <= 0) {
    for (pollfd& descriptor : descriptors) {
      descriptor.revents = 0;
    }
  }
}

}  // namespace

RunEnd::RunEnd(double duration_s) : stop_signal_(OpenStopSignal()), end_(Clock::time_point::max()) {
  if (duration_s > 0) {
    end_ = Clock::now() +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(duration_s));
  }
}

bool RunEnd::Wait(nanoseconds pause, int output) { return WaitForInput(-1, pause, output); }

bool RunEnd::WaitForInput(int input, nanoseconds pause, int output) {
  const auto left = end_ - Clock::now();
  std::array<pollfd, 3> descriptors = {{{.fd = stop_signal_, .events = POLLIN, .revents = 0},
                                        {.fd = output, .events = 0, .revents = 0},
                                        {.fd = input, .events = POLLIN, .revents = 0}}};
  Poll(descriptors, std::min<nanoseconds>(pause, left));
  stopped_ = stopped_ || descriptors[0].revents != 0 || Clock::now() >= end_;
  return stopped_ || descriptors[1].revents != 0;
}

bool RunEnd::WaitForRoom(int output) {
  std::array<pollfd, 2> descriptors = {{{.fd = stop_signal_, .events = POLLIN, .revents = 0},
                                        {.fd = output, .events = POLLOUT, .revents = 0}}};
  while (!stopped_) {
    Poll(descriptors, end_ - Clock::now());
    if (descriptors[1].revents != 0) {
      return true;
    }
    stopped_ = descriptors[0].revents != 0 || Clock::now() >= end_;
  }
  descriptors[0].fd = -1;
  Poll(descriptors, kGrace);
  return descriptors[1].revents != 0;
}

}  // namespace kestrelbridge::tools
