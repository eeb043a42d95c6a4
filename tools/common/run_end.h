// When a subcommand is to end by itself, and how it waits until then.
#pragma once

#include <chrono>

namespace kestrelbridge::tools {

// Ctrl-C, SIGTERM, or the end of --duration. One thread.
class RunEnd {
 public:
  using Clock = std::chrono::steady_clock;

  // duration_s 0: no limit. Before any other thread exists (see OpenStopSignal).
  explicit RunEnd(double duration_s);

  // Waits that long, less when it is time to end or when the reader of `output` (a descriptor) has
  // closed its pipe; true then. Output -1: nobody to watch.
  bool Wait(std::chrono::nanoseconds pause, int output);

  // The same, but waits no longer than until `input` has something to read.
  [[nodiscard]] bool WaitForInput(int input, std::chrono::nanoseconds pause, int output);

  // Waits until `output` takes bytes or has failed. False when it does neither and it is time to
  // end; a reader gets a short grace then, so that it does not lose half a unit.
  [[nodiscard]] bool WaitForRoom(int output);

  // Whether the signal or the end of the time has been seen, and not only a closed pipe.
  [[nodiscard]] bool stopped() const { return stopped_; }

 private:
  int stop_signal_;
  Clock::time_point end_;
  bool stopped_ = false;
};

}  // namespace kestrelbridge::tools
