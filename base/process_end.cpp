#include "base/process_end.h"

#include <unistd.h>

#include <cstdio>

namespace kestrelbridge {

void EndProcess(ExitCode code, const char* message) {
  if (message != nullptr) {
    std::fprintf(stderr, "%s\n", message);
  }
  ::_exit(static_cast<int>(code));
}

}  // namespace kestrelbridge
