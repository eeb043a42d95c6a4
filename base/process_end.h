// The one way in which the daemon ends.
#pragma once

namespace kestrelbridge {

// Exit codes are part of the product: supervisors and scripts act on them.
enum class ExitCode : int {
  kUsageOrLink = 1,   // usage text shown, destination missing, endpoint not opened, camera lost
  kFrameMemory = 2,   // the frame shared memory cannot be set up
  kReceiveFailed = 3  // a receive on any endpoint failed
};

// Writes the message, if there is one, as a line on standard error and ends the process with the
// code, at once: no destructor and no exit handler runs, because the other threads are still at
// work on everything that those would tear down. Any thread.
[[noreturn]] void EndProcess(ExitCode code, const char* message = nullptr);

}  // namespace kestrelbridge
