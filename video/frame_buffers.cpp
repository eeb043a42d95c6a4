#include "video/frame_buffers.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "base/byte_order.h"
#include "base/copy_bytes.h"
#include "base/counters.h"
#include "base/log.h"
#include "base/run_paths.h"
#include "base/shared_memory.h"
#include "kestrelbridge/frame_block.h"

namespace kestrelbridge {
namespace {

// Set by start-up before the camera's receive thread exists; that thread alone uses them after.
constinit std::span<std::uint8_t> frame_block{};
constinit int ring_descriptor = -1;
constinit std::uint16_t unit_sequence = 0;

void Refuse(const char* action, const char* name, std::size_t size, const char* reason) {
  Log("Cannot %s shared memory /dev/shm/%s (%zu bytes): %s\n", action, name, size, reason);
}

// Returns an empty span when that fails.
std::span<std::uint8_t> MapBlock(const OwnBlock& own, const char* name, std::size_t size) {
  if (own.descriptor == -1) {
    Refuse("open", name, size, own.problem.c_str());
    return {};
  }
  CloseToOthers(own.descriptor);
  const SharedBlock block = MapSharedBlock(own.descriptor, size);
  if (block.bytes == nullptr) {
    Refuse(block.failed_step, name, size, std::strerror(block.error));
    if (block.error == ENOSPC) {
      Log("Free some of /dev/shm (see df /dev/shm), or give it more memory\n");
    }
    return {};
  }
  return {block.bytes, size};
}

// Two daemons in one ring would be a picture of both. The descriptor stays open, and with it the
// ring ours, for as long as the process lives.
bool IsOurs(const OwnBlock& ring) {
  pid_t holder = 0;
  if (ring.descriptor == -1 || TakeBlock(ring.descriptor, holder)) {
    return true;
  }
  close(ring.descriptor);
  Log("another kestrelbridge (process %d) publishes here\n", static_cast<int>(holder));
  return false;
}

// Zeroes the ring under its readers, slot headers first: a reader that copied zeroed payload finds
// the slot's header changed as well (see FrameBlockReader).
void ClearFrameBlock() {
  for (std::size_t slot = 0; slot < kSlotCount; ++slot) {
    std::memset(&frame_block[SlotOffset(slot)], 0, kSlotHeaderSize);
  }
  std::atomic_thread_fence(std::memory_order_release);
  // memset, in every build: 60 MB byte by byte would keep the camera waiting for too long.
  std::memset(frame_block.data(), 0, frame_block.size());
  WakeReaders(frame_block.data());
}

void HonourClearRequest() {
  if (LoadShared16(&frame_block[kClearRequestOffset], __ATOMIC_RELAXED) != 0) {
    ClearFrameBlock();
    Log("Clear frame shared memory\n");
  }
}

void WriteSlotHeader(std::span<std::uint8_t> slot, std::size_t chunk_length,
                     std::uint8_t chunk_index) {
  StoreLe32(slot, kChunkLengthOffset, static_cast<std::uint32_t>(chunk_length));
  StoreLe16(slot, kUnitSequenceOffset, unit_sequence);
  slot[kChunkIndexOffset] = chunk_index;
  slot[kSlotReservedOffset] = 0;
  std::ranges::fill(slot.subspan(kSlotFlagsOffset, kSlotFlagCount), std::uint8_t{1});
}

void WriteChunk(std::span<const std::uint8_t> chunk, std::uint8_t chunk_index) {
  std::uint16_t slot_number = LoadShared16(&frame_block[kWriteIndexOffset], __ATOMIC_RELAXED);
  if (slot_number >= kSlotCount) {
    slot_number = 0;  // any process may write the block; a bad index must not lead outside of it
  }
  const auto slot = frame_block.subspan(SlotOffset(slot_number), kSlotSize);
  // The release fence keeps these stores behind the indices of the units before: a reader that
  // finds new payload in an old slot also finds last_sequence moved on (see FrameBlockReader).
  std::atomic_thread_fence(std::memory_order_release);
  CopyBytes(chunk, slot.subspan(kSlotHeaderSize));
  WriteSlotHeader(slot, chunk.size(), chunk_index);
  const auto next = static_cast<std::uint16_t>(slot_number + 1 == kSlotCount ? 0 : slot_number + 1);
  // Release: who sees the index sees the slot that it announces.
  StoreShared16(&frame_block[kWriteIndexOffset], next, __ATOMIC_RELEASE);
}

}  // namespace

int InitFrameBuffers() {
  if (ring_descriptor != -1) {
    LeaveBlock(ring_descriptor);  // anew in the same process, as tests do
  }
  const OwnBlock ring = OpenOwnBlock(kFrameBlockName);
  if (!IsOurs(ring)) {
    return -1;
  }
  unlink(kVideoWidthPath);
  unlink(kVideoHeightPath);
  Log("Init frame buffer %d bytes\n", static_cast<int>(kFrameBlockSize));
  unit_sequence = 0;
  frame_block = MapBlock(ring, kFrameBlockName, kFrameBlockSize);
  ring_descriptor = frame_block.empty() ? -1 : ring.descriptor;
  if (frame_block.empty()) {
    return -1;
  }
  ClearFrameBlock();
  frame_block[kClearRequestOffset] = 1;
  Log("Init frame buffer for transcoding %d bytes\n", static_cast<int>(kTranscodingBlockSize));
  const auto transcoding_block =
      MapBlock(OpenOwnBlock(kTranscodingBlockName), kTranscodingBlockName, kTranscodingBlockSize);
  if (transcoding_block.empty()) {
    return -1;
  }
  std::memset(transcoding_block.data(), 0, transcoding_block.size());
  transcoding_block[0] = 1;
  return 0;
}

void PublishVideoUnit(std::span<const std::uint8_t> unit) {
  if (frame_block.empty() || unit.empty()) {
    return;
  }
  HonourClearRequest();
  GetCounters().published_bytes.Add(unit.size());
  std::uint8_t chunk_index = 0;
  while (!unit.empty()) {
    const std::size_t length = std::min(unit.size(), kChunkCapacity);
    WriteChunk(unit.first(length), chunk_index);
    unit = unit.subspan(length);
    ++chunk_index;
  }
  StoreShared16(&frame_block[kLastSequenceOffset], unit_sequence, __ATOMIC_RELEASE);
  WakeReaders(frame_block.data());
  ++unit_sequence;
  GetCounters().units_published.Add();
}

}  // namespace kestrelbridge
