#include "base/process_end.h"

#include <unistd.h>

#include "base/log.h"

namespace kestrelbridge {

void EndProcess(ExitCode code, const char* message) {
  if (message != nullptr) {
    Log("%s\n", message);
  }
  ::_exit(static_cast<int>(code));
}

}  // namespace kestrelbridge
