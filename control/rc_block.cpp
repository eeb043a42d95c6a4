#include "control/rc_block.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "base/shared_memory.h"

namespace kestrelbridge {
namespace {

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

struct BlockCopy {
  alignas(double) std::array<std::uint8_t, kRcBlockSize> bytes{};
  bool operator==(const BlockCopy&) const = default;
};

// False when there is less to copy than a whole block. Not through the mapping: a page behind the
// end of a file that its owner cuts short just now cannot be touched without a SIGBUS.
bool CopyBlock(int descriptor, BlockCopy& copy) {
  return pread(descriptor, copy.bytes.data(), copy.bytes.size(), 0) ==
         static_cast<ssize_t>(copy.bytes.size());
}

// The kernel copies while the owner writes, and not every value as a whole. Two copies that agree
// hold no half of one; of an owner that never rests the latest copy is taken.
bool CopyBlockAtRest(int descriptor, BlockCopy& copy) {
  constexpr int kMaxTries = 3;
  if (!CopyBlock(descriptor, copy)) {
    return false;
  }
  for (int tries = 0; tries < kMaxTries; ++tries) {
    const BlockCopy before = copy;
    if (!CopyBlock(descriptor, copy)) {
      return false;
    }
    if (copy == before) {
      break;
    }
  }
  return true;
}

// A block that has lost its name will never be written again by a process that starts anew.
bool HasItsName(int descriptor) {
  struct stat status {};
  return fstat(descriptor, &status) == 0 && status.st_nlink != 0;
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
  BlockCopy copy;
  if (!HasItsName(block.descriptor) || !CopyBlockAtRest(block.descriptor, copy)) {
    CloseRcBlock(block);
    if (!block.in_trouble) {
      std::fprintf(stderr, "Shared raw RC mem was cut short or removed, opening it again\n");
    }
    block.in_trouble = true;
    block.was_lost = true;
    return false;
  }
  CountGoodRead(block);
  if (block.was_lost && copy == BlockCopy{}) {
    return true;
  }
  block.was_lost = false;
  for (std::size_t channel = 0; channel < kRcChannelCount; ++channel) {
    values.channels[channel] = LoadRcChannel(copy.bytes.data(), channel);
  }
  values.slider_enabled = LoadRcSliderEnabled(copy.bytes.data()) != 0;
  return true;
}

}  // namespace kestrelbridge
