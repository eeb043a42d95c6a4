#include "video/frame_buffers.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/byte_order.h"
#include "base/run_paths.h"
#include "kestrelbridge/frame_block.h"

namespace kestrelbridge {
namespace {

constexpr mode_t kBlockMode = 0600;

// Set by start-up before the camera's receive thread exists; that thread alone uses them after.
constinit std::span<std::uint8_t> frame_block{};
constinit std::uint16_t unit_sequence = 0;

// Says what could not be done to a block and why; `error` is an errno value.
std::span<std::uint8_t> Refuse(const char* action, const char* name, std::size_t size, int error) {
  std::fprintf(stderr, "Cannot %s shared memory /dev/shm/%s (%zu bytes): %s\n", action, name, size,
               std::strerror(error));
  if (error == ENOSPC) {
    std::fprintf(stderr, "Free some of /dev/shm (see df /dev/shm), or give it more memory\n");
  }
  return {};
}

// Takes over the block of an earlier run or creates it. The descriptor stays open for the life of
// the process. Returns an empty span when that fails.
std::span<std::uint8_t> MapBlock(const char* name, std::size_t size) {
  int descriptor = shm_open(name, O_RDWR, kBlockMode);  // close-on-exec by itself
  if (descriptor == -1) {
    descriptor = shm_open(name, O_RDWR | O_CREAT, kBlockMode);
  }
  if (descriptor == -1) {
    return Refuse("open", name, size, errno);
  }
  // Without the reservation a full /dev/shm would show as a SIGBUS in flight. It comes before the
  // size: a block that has its size has its memory too, and a reader may touch it.
  if (const int error = posix_fallocate(descriptor, 0, static_cast<off_t>(size)); error != 0) {
    return Refuse("reserve", name, size, error);
  }
  if (ftruncate(descriptor, static_cast<off_t>(size)) != 0) {
    return Refuse("size", name, size, errno);
  }
  void* mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  if (mapped == MAP_FAILED) {
    return Refuse("map", name, size, errno);
  }
  return {static_cast<std::uint8_t*>(mapped), size};
}

// Zeroes the ring under its readers, slot headers first: a reader that copied zeroed payload finds
// the slot's header changed as well (see FrameBlockReader).
void ClearFrameBlock() {
  for (std::size_t slot = 0; slot < kSlotCount; ++slot) {
    std::ranges::fill(frame_block.subspan(SlotOffset(slot), kSlotHeaderSize), std::uint8_t{0});
  }
  std::atomic_thread_fence(std::memory_order_release);
  std::ranges::fill(frame_block, std::uint8_t{0});
}

void HonourClearRequest() {
  if (LoadShared16(&frame_block[kClearRequestOffset], __ATOMIC_RELAXED) != 0) {
    ClearFrameBlock();
    std::fprintf(stderr, "Clear frame shared memory\n");
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
  std::ranges::copy(chunk, slot.begin() + kSlotHeaderSize);
  WriteSlotHeader(slot, chunk.size(), chunk_index);
  const auto next = static_cast<std::uint16_t>(slot_number + 1 == kSlotCount ? 0 : slot_number + 1);
  // Release: who sees the index sees the slot that it announces.
  StoreShared16(&frame_block[kWriteIndexOffset], next, __ATOMIC_RELEASE);
}

}  // namespace

int InitFrameBuffers() {
  unlink(kVideoWidthPath);
  unlink(kVideoHeightPath);
  std::fprintf(stderr, "Init frame buffer %d bytes\n", static_cast<int>(kFrameBlockSize));
  unit_sequence = 0;
  frame_block = MapBlock(kFrameBlockName, kFrameBlockSize);
  if (frame_block.empty()) {
    return -1;
  }
  ClearFrameBlock();
  frame_block[kClearRequestOffset] = 1;
  std::fprintf(stderr, "Init frame buffer for transcoding %d bytes\n",
               static_cast<int>(kTranscodingBlockSize));
  const auto transcoding_block = MapBlock(kTranscodingBlockName, kTranscodingBlockSize);
  if (transcoding_block.empty()) {
    return -1;
  }
  std::ranges::fill(transcoding_block, std::uint8_t{0});
  transcoding_block[0] = 1;
  return 0;
}

void PublishVideoUnit(std::span<const std::uint8_t> unit) {
  if (frame_block.empty() || unit.empty()) {
    return;
  }
  HonourClearRequest();
  std::uint8_t chunk_index = 0;
  while (!unit.empty()) {
    const std::size_t length = std::min(unit.size(), kChunkCapacity);
    WriteChunk(unit.first(length), chunk_index);
    unit = unit.subspan(length);
    ++chunk_index;
  }
  StoreShared16(&frame_block[kLastSequenceOffset], unit_sequence, __ATOMIC_RELEASE);
  ++unit_sequence;
}

}  // namespace kestrelbridge
