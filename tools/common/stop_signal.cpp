#include "tools/common/stop_signal.h"

#include <sys/signalfd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

#include "tools/common/tool_error.h"

namespace kestrelbridge::tools {

int OpenStopSignal() {
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  sigaddset(&stop_signals, SIGHUP);  // the terminal was closed
  sigprocmask(SIG_BLOCK, &stop_signals, nullptr);
  const int descriptor = signalfd(-1, &stop_signals, SFD_CLOEXEC);
  if (descriptor == -1) {
    throw ToolError(std::string("cannot watch for signals: ") + std::strerror(errno));
  }
  return descriptor;
}

}  // namespace kestrelbridge::tools
