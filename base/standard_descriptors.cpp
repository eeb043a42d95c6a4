#include "base/standard_descriptors.h"

#include <fcntl.h>
#include <unistd.h>

namespace kestrelbridge {

void OccupyStandardDescriptors() {
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) == -1) {
      // The lowest that is free, which is this one. Kept for those that we start, too.
      [[maybe_unused]] const int occupied = open("/dev/null", O_RDONLY);
    }
  }
}

}  // namespace kestrelbridge
