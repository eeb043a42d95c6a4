// POSIX shared-memory blocks that the daemon shares with other processes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kestrelbridge {

// A block, or what could not be done to it and why.
struct SharedBlock {
  int descriptor = -1;                // open as long as the block is mapped
  std::uint8_t* bytes = nullptr;      // mapped for reading and writing; null when that failed
  const char* failed_step = nullptr;  // "size", "reserve" or "map"
  int error = 0;                      // errno of that step
};

// Opens the block of that name as it is. Returns a descriptor, close-on-exec, or -1 with errno set.
int OpenSharedBlock(const char* name);

// Opens it, creating it with mode 0600 where there is none. Returns as above.
int OpenOrCreateSharedBlock(const char* name);

// Gives the open block its size, reserves its memory, and maps it. Without the reservation a full
// /dev/shm would show as a SIGBUS in flight; it comes before the size, so that a block that has its
// size has its memory too. On failure the descriptor is closed.
SharedBlock MapSharedBlock(int descriptor, std::size_t size);

}  // namespace kestrelbridge
