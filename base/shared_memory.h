// POSIX shared-memory blocks that the daemon shares with other processes.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace kestrelbridge {

// A block, or what could not be done to it and why.
struct SharedBlock {
  int descriptor = -1;                // open as long as the block is mapped
  std::uint8_t* bytes = nullptr;      // mapped for reading and writing; null when that failed
  const char* failed_step = nullptr;  // "size", "reserve" or "map"
  int error = 0;                      // errno of that step
};

// Opens the block of that name as it is. Returns a descriptor, close-on-exec, or -1 with errno set.
[[nodiscard]] int OpenSharedBlock(const char* name);

// A block that only this daemon is to write, or why it cannot be had.
struct OwnBlock {
  int descriptor = -1;       // close-on-exec
  std::string problem = {};  // for the log; empty when it is open
};

// Opens the block of that name when it is a plain file of this user or of root, and creates it with
// mode 0600 where there is none. Whatever else stands there was put there by somebody who would
// read the video or cut the block short under our hands: it is removed when we may, with a line in
// the log, unless another daemon publishes into it.
[[nodiscard]] OwnBlock OpenOwnBlock(const char* name);

// Takes what others, neither owner nor group, may do with our block. Somebody else's stays as it
// is.
void CloseToOthers(int descriptor);

// Keeps the open block for this process alone, until it ends. False when another one has it:
// `holder` is its number then, 0 when the system does not tell.
[[nodiscard]] bool TakeBlock(int descriptor, pid_t& holder);

// Which process has taken the block of that name; 0: none, or none that this user may ask about.
// Takes nothing itself, so that a daemon that starts meanwhile is not refused.
[[nodiscard]] pid_t HolderOfBlock(const char* name);

// Ends that, and closes the descriptor: mappings alone would keep the block taken.
void LeaveBlock(int descriptor);

// Gives the open block its size, reserves its memory, and maps it. Without the reservation a full
// /dev/shm would show as a SIGBUS in flight; it comes before the size, so that a block that has its
// size has its memory too. On failure the descriptor is closed.
[[nodiscard]] SharedBlock MapSharedBlock(int descriptor, std::size_t size);

}  // namespace kestrelbridge
