#include "control/rc_block.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "base/log.h"
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
    Log("Cannot %s shared memory /dev/shm%s (%zu bytes): %s, trying again\n", action, kRcBlockName,
        kRcBlockSize, std::strerror(error));
  }
  block.in_trouble = true;
  return false;
}

struct OpenedBlock {
  int descriptor = -1;   // errno is set when it is -1
  bool created = false;  // by us, just now
};

// Takes the block of the remote-control process, or creates it for that process to find.
OpenedBlock OpenOrCreate() {
  const int found = OpenSharedBlock(kRcBlockName);
  if (found != -1 || errno != ENOENT) {
    return {.descriptor = found};
  }
  constexpr mode_t kOwnersOnly = 0600;
  const int created = shm_open(kRcBlockName, O_RDWR | O_CREAT | O_EXCL, kOwnersOnly);
  if (created == -1 && errno == EEXIST) {
    return {.descriptor = OpenSharedBlock(kRcBlockName)};  // that process was quicker
  }
  return {.descriptor = created, .created = created != -1};
}

void SayHowItWasOpened(const OpenedBlock& opened) {
  const bool found = opened.descriptor != -1 && !opened.created;
  Log(found ? "Shared raw RC mem opened\n" : "Creating new shared raw RC\n");
}

void SayWhenOthersMayWrite(mode_t mode) {
  if ((mode & S_IWOTH) != 0) {
    Log("Every user may write shared memory /dev/shm%s (mode %04o) and so work the "
        "camera's switches\n",
        kRcBlockName, static_cast<unsigned>(mode & ALLPERMS));
  }
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

struct stat StatusOf(int descriptor) {
  struct stat status {};
  fstat(descriptor, &status);
  return status;
}

// As far as the kernel knows: what goes through a mapping shows in the content alone.
bool IsUnwritten(const struct stat& status, const RcBlock& block) {
  return status.st_mtim.tv_sec == block.made_at.tv_sec &&
         status.st_mtim.tv_nsec == block.made_at.tv_nsec;
}

void CountGoodRead(RcBlock& block) {
  if (block.in_trouble && ++block.good_reads == kRcBlockWellAfterReads) {
    block.in_trouble = false;
  }
}

}  // namespace

bool OpenRcBlock(RcBlock& block) {
  CloseRcBlock(block);
  const OpenedBlock opened = OpenOrCreate();
  const int error = errno;
  if (!block.in_trouble) {
    SayHowItWasOpened(opened);
  }
  if (opened.descriptor == -1) {
    return Refuse(block, "open", error);
  }
  const struct stat found = StatusOf(opened.descriptor);
  const SharedBlock mapped = MapSharedBlock(opened.descriptor, kRcBlockSize);
  if (mapped.bytes == nullptr) {
    return Refuse(block, mapped.failed_step, mapped.error);
  }
  if (block.in_trouble) {
    SayHowItWasOpened(opened);  // now that it is certain: it is tried for once a second
  }
  SayWhenOthersMayWrite(found.st_mode);
  block.descriptor = mapped.descriptor;
  block.bytes = mapped.bytes;
  const bool still_cut =
      block.loss == RcBlock::Loss::kCutShort && found.st_size < static_cast<off_t>(kRcBlockSize);
  block.zeroes_are_ours = block.loss != RcBlock::Loss::kNone && (opened.created || still_cut);
  block.made_at = StatusOf(block.descriptor).st_mtim;
  return true;
}

bool ReadRcBlock(RcBlock& block, RcValues& values) {
  if (block.bytes == nullptr) {
    return false;
  }
  BlockCopy copy;
  const struct stat status = StatusOf(block.descriptor);
  // One that has lost its name will never be written again by a process that starts anew.
  const bool has_its_name = status.st_nlink != 0;
  if (!has_its_name || !CopyBlockAtRest(block.descriptor, copy)) {
    CloseRcBlock(block);
    if (!block.in_trouble) {
      Log("Shared raw RC mem was cut short or removed, opening it again\n");
    }
    block.in_trouble = true;
    block.loss = has_its_name ? RcBlock::Loss::kCutShort : RcBlock::Loss::kRemoved;
    return false;
  }
  CountGoodRead(block);
  if (block.zeroes_are_ours && IsUnwritten(status, block) && copy == BlockCopy{}) {
    return true;
  }
  block.zeroes_are_ours = false;
  for (std::size_t channel = 0; channel < kRcChannelCount; ++channel) {
    values.channels[channel] = LoadRcChannel(copy.bytes.data(), channel);
  }
  values.slider_enabled = LoadRcSliderEnabled(copy.bytes.data()) != 0;
  return true;
}

}  // namespace kestrelbridge
