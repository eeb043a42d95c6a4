#include "control/rc_block.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "base/shared_memory.h"

namespace kestrelbridge {
namespace {

constexpr auto kBlockLength = static_cast<off_t>(kRcBlockSize);

void CloseRcBlock(RcBlock& block) {
  if (block.bytes != nullptr) {
    munmap(block.bytes, kRcBlockSize);
  }
  if (block.descriptor != -1) {
    close(block.descriptor);
  }
  block.bytes = nullptr;
  block.descriptor = -1;
  block.good_reads = 0;
}

// Says what could not be done and why, unless trouble is known; `error` is an errno value.
bool Refuse(RcBlock& block, const char* action, int error) {
  CloseRcBlock(block);
  if (!block.in_trouble) {
    std::fprintf(stderr, "Cannot %s shared memory /dev/shm%s (%zu bytes): %s, trying again\n",
                 action, kRcBlockName, kRcBlockSize, std::strerror(error));
  }
  block.in_trouble = true;
  return false;
}

// Takes the block of the remote-control process, or creates it for that process to find.
int OpenOrCreate(bool quiet) {
  const int descriptor = OpenSharedBlock(kRcBlockName);
  if (!quiet) {
    std::fprintf(stderr,
                 descriptor == -1 ? "Creating new shared raw RC\n" : "Shared raw RC mem opened\n");
  }
  return descriptor != -1 ? descriptor : OpenOrCreateSharedBlock(kRcBlockName);
}

// A page behind the end of a file that was cut short cannot be touched without a SIGBUS, and a
// block that has lost its name will never be written again by a process that starts anew.
bool IsStillTheBlock(int descriptor) {
  struct stat status {};
  return fstat(descriptor, &status) == 0 && status.st_size >= kBlockLength && status.st_nlink != 0;
}

void CountGoodRead(RcBlock& block) {
  if (block.in_trouble && ++block.good_reads == kRcBlockWellAfterReads) {
    block.in_trouble = false;
    std::fprintf(stderr, "Shared raw RC mem opened\n");
  }
}

}  // namespace

bool OpenRcBlock(RcBlock& block) {
  CloseRcBlock(block);
  const int descriptor = OpenOrCreate(block.in_trouble);
  if (descriptor == -1) {
    return Refuse(block, "open", errno);
  }
  const SharedBlock mapped = MapSharedBlock(descriptor, kRcBlockSize);
  if (mapped.bytes == nullptr) {
    return Refuse(block, mapped.failed_step, mapped.error);
  }
  block.descriptor = mapped.descriptor;
  block.bytes = mapped.bytes;
  return true;
}

bool ReadRcBlock(RcBlock& block, RcValues& values) {
  if (block.bytes == nullptr) {
    return false;
  }
  if (!IsStillTheBlock(block.descriptor)) {
    CloseRcBlock(block);
    if (!block.in_trouble) {
      std::fprintf(stderr, "Shared raw RC mem was cut short or removed, opening it again\n");
    }
    block.in_trouble = true;
    return false;
  }
  for (std::size_t channel = 0; channel < kRcChannelCount; ++channel) {
    values.channels[channel] = LoadRcChannel(block.bytes, channel);
  }
  values.slider_enabled = LoadRcSliderEnabled(block.bytes) != 0;
  CountGoodRead(block);
  return true;
}

}  // namespace kestrelbridge
