// The frame block: the camera's live H.264 stream in POSIX shared memory, for the main application.
//
// This header is the one definition of the block's layout. It holds what a reader needs, depends on
// the C++17 standard library and POSIX alone, and is free to be copied into your project. Link with
// -lrt where the C library still wants it.
//
//   The block "kestrelbridge_framebuffer", 60,003,624 bytes. Numbers are little-endian.
//
//   bytes   header field      meaning
//   0-1     clear_request     not 0: the writer zeroes the whole block before its next unit
//   2-3     last_sequence     unit_sequence of the newest unit
//   4-5     write_index       slot that the next unit goes to, 0 to 199
//   6-23    reserved          0
//   24-     200 slots of 300,018 bytes each
//
//   bytes   slot field        meaning
//   0-3     chunk_length      payload bytes, 1 to 300,000 (not aligned in odd slots)
//   4-5     unit_sequence     number of the unit, counts up from 0 with every start of the daemon
//   6       chunk_index       0 for a unit's first chunk; the daemon's units have but one
//   7       reserved          0
//   8-17    slot_flags        ten bytes, each 1 once the slot has been written
//   18-     payload           one access unit, Annex B, opened by 00 00 00 01
//
// How the daemon writes: payload, slot header, write_index, last_sequence, in this order. It never
// waits for a reader: a slot is overwritten when the ring comes round to it, 200 units later. From
// its start until its first unit, clear_request is 1 and all else is 0.
//
// How to read, with the class below:
//
//   kestrelbridge::FrameBlockMapping mapping;
//   while (!mapping.Open()) { wait a little; }           // the daemon has not run yet
//   kestrelbridge::FrameBlockReader reader(mapping.data());
//   std::vector<std::uint8_t> unit;
//   for (;;) {
//     if (reader.Next(unit)) { use the unit; continue; }
//     if (!reader.Wait(std::chrono::seconds(1)) && !mapping.IsCurrent()) { begin anew; }
//   }
//
// Wait sleeps on the 32-bit word at bytes 4 to 7 (a shared futex, for which a read-only mapping is
// enough). The daemon wakes all who sleep there after it has stored last_sequence, and after it has
// zeroed the block. A wake-up is a hint, no more.
//
// Who reads is in the group kestrelbridge, for which the service's block is readable, or the same
// user as a daemon that was started by hand. The mapping stays good when the daemon restarts; only
// when somebody removes the block by hand a new one takes its place, and
// FrameBlockMapping::IsCurrent tells. Nothing here blocks but Wait, or throws but for
// std::bad_alloc of the unit's vector.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <vector>

namespace kestrelbridge {

inline constexpr char kFrameBlockName[] = "kestrelbridge_framebuffer";

inline constexpr std::size_t kFrameBlockHeaderSize = 24;
inline constexpr std::size_t kClearRequestOffset = 0;
inline constexpr std::size_t kLastSequenceOffset = 2;
inline constexpr std::size_t kWriteIndexOffset = 4;
inline constexpr std::size_t kWaitWordOffset = kWriteIndexOffset;  // of 32 bits

inline constexpr std::size_t kSlotCount = 200;
inline constexpr std::size_t kSlotHeaderSize = 18;
inline constexpr std::size_t kChunkCapacity = 300'000;
inline constexpr std::size_t kSlotSize = kSlotHeaderSize + kChunkCapacity;
inline constexpr std::size_t kChunkLengthOffset = 0;
inline constexpr std::size_t kUnitSequenceOffset = 4;
inline constexpr std::size_t kChunkIndexOffset = 6;
inline constexpr std::size_t kSlotReservedOffset = 7;
inline constexpr std::size_t kSlotFlagsOffset = 8;
inline constexpr std::size_t kSlotFlagCount = 10;

inline constexpr std::size_t kFrameBlockSize = kFrameBlockHeaderSize + kSlotCount * kSlotSize;
static_assert(kFrameBlockSize == 60'003'624);
static_assert(kSlotFlagsOffset + kSlotFlagCount == kSlotHeaderSize);

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "the frame block is little-endian; this header needs byte swaps on this machine"
#endif

// Byte offset of slot 0 to 199 within the block.
constexpr std::size_t SlotOffset(std::size_t slot) {
  return kFrameBlockHeaderSize + slot * kSlotSize;
}

// The 16-bit fields are aligned in every slot, and another process writes them while we read: they
// are accessed as a whole, with the given order.
inline std::uint16_t LoadShared16(const std::uint8_t* field, int order) {
  return __atomic_load_n(reinterpret_cast<const std::uint16_t*>(field), order);
}
inline void StoreShared16(std::uint8_t* field, std::uint16_t value, int order) {
  __atomic_store_n(reinterpret_cast<std::uint16_t*>(field), value, order);
}

// Asks the daemon to zero the block before its next unit. `block` must be mapped for writing. Any
// thread, any process; readers go on by themselves.
inline void RequestClear(std::uint8_t* block) {
  StoreShared16(block + kClearRequestOffset, 1, __ATOMIC_RELAXED);
}

// The futex call. Its times are two words of the machine, whatever the C library's timespec is; the
// newest 32-bit systems have the call for 64-bit times alone. The kernel's numbers are written out
// because not every system has its headers.
#if defined(SYS_futex)
inline constexpr long kFutexCall = SYS_futex;
using FutexTime = long;
#else
inline constexpr long kFutexCall = SYS_futex_time64;
using FutexTime = long long;
#endif
inline constexpr int kFutexWait = 0;
inline constexpr int kFutexWake = 1;
inline constexpr int kPopulateForReading = 22;  // of madvise, since Linux 5.14

// Sleeps while the word holds `expected`, for less than a second. 0 when woken, else an errno
// value: ETIMEDOUT, EAGAIN for another word, EINTR for a signal.
inline int FutexWait(const std::uint8_t* word, std::uint32_t expected,
                     std::chrono::nanoseconds limit) {
  const FutexTime timeout[2] = {0, static_cast<FutexTime>(limit.count())};
  return syscall(kFutexCall, word, kFutexWait, expected, timeout, nullptr, 0) == 0 ? 0 : errno;
}

// Wakes all readers that wait, of all processes; a mapping for reading is enough. For the daemon,
// and for who ends a Wait of his own early. One system call.
inline void WakeReaders(const std::uint8_t* block) {
  syscall(kFutexCall, block + kWaitWordOffset, kFutexWake, INT_MAX, nullptr, nullptr, 0);
}

// The block's mapping, read-only. Not thread-safe.
class FrameBlockMapping {
 public:
  FrameBlockMapping() = default;
  FrameBlockMapping(const FrameBlockMapping&) = delete;
  FrameBlockMapping& operator=(const FrameBlockMapping&) = delete;
  ~FrameBlockMapping() {
    if (data_ != nullptr) {
      munmap(const_cast<std::uint8_t*>(data_), kFrameBlockSize);
    }
  }

  // Returns false, with errno set, while there is no block: the daemon has not been started since
  // the box was, or this user may not open it (EACCES). Also false, with errno EAGAIN, while the
  // daemon has not yet given the block its size. Try again after a moment.
  bool Open() {
    if (data_ != nullptr) {
      return true;
    }
    const int descriptor = shm_open(kFrameBlockName, O_RDONLY | O_CLOEXEC, 0);
    if (descriptor == -1) {
      return false;
    }
    struct stat status {};
    if (fstat(descriptor, &status) == 0 && status.st_size >= static_cast<off_t>(kFrameBlockSize)) {
      void* mapped = mmap(nullptr, kFrameBlockSize, PROT_READ, MAP_SHARED, descriptor, 0);
      data_ = mapped == MAP_FAILED ? nullptr : static_cast<const std::uint8_t*>(mapped);
      inode_ = status.st_ino;
      if (data_ != nullptr) {
        // All at once takes a few milliseconds; a page fault for every unit of the first 200 would
        // be a third of what reading costs. An older kernel refuses, and faults it is.
        madvise(mapped, kFrameBlockSize, kPopulateForReading);
      }
    } else {
      errno = EAGAIN;
    }
    const int reason = errno;
    close(descriptor);
    errno = reason;
    return data_ != nullptr;
  }

  // False once the mapped block has been removed or replaced: nobody will write it any more. Then
  // make a new mapping, and a new reader. Takes system calls: ask when no unit has come for a
  // second.
  bool IsCurrent() const {
    const int descriptor = shm_open(kFrameBlockName, O_RDONLY | O_CLOEXEC, 0);
    struct stat status {};
    const bool is_current =
        descriptor != -1 && fstat(descriptor, &status) == 0 && status.st_ino == inode_;
    if (descriptor != -1) {
      close(descriptor);
    }
    return is_current;
  }

  // The mapped block, kFrameBlockSize bytes; null before Open succeeded.
  const std::uint8_t* data() const { return data_; }

 private:
  const std::uint8_t* data_ = nullptr;
  ino_t inode_ = 0;
};

// Follows the ring and hands out whole units, in order, each once. A reader that is too slow loses
// units, never gets a mixed one: what was overwritten is counted and skipped. One thread per
// reader; any number of readers.
class FrameBlockReader {
 public:
  enum class Start {
    kLive,    // only units that are published from now on
    kOldest,  // also what the ring still holds, at most 100 units
  };

  // What the reader saw beside the units that it handed out. The unit numbers are all that tells a
  // lap from a restart: who does not look for a quarter of an hour may take one for the other.
  struct Counters {
    std::uint64_t units = 0;     // handed out
    std::uint64_t bytes = 0;     // of those
    std::uint64_t lost = 0;      // published, but overwritten or cleared before they could be read
    std::uint64_t laps = 0;      // times that the writer ran past this reader or cleared the ring
    std::uint64_t restarts = 0;  // times that the daemon was started afresh
  };

  // `block` points at kFrameBlockSize mapped bytes that stay mapped as long as the reader is used.
  // A ring that holds no unit yet is always read from its first one on.
  explicit FrameBlockReader(const std::uint8_t* block, Start start = Start::kLive)
      : block_(block), reach_(start == Start::kOldest ? kReach : 0) {
    if (RingIsFresh(WriteIndex())) {
      reach_ = kReach;
    } else {
      Resume();
    }
  }

  // Copies the next whole unit into `unit`, replacing what it held, and returns true; false when
  // there is none yet. Whatever the block contains, nothing outside of it is read.
  bool Next(std::vector<std::uint8_t>& unit) {
    const std::int64_t indices = Indices();
    const bool taken = TakeNext(unit);
    nothing_at_ = taken ? kNowhere : indices;
    return taken;
  }

  // Sleeps until Next may find a unit, and returns true then, at once when there is one already.
  // False when the time is over, a signal came, or a second has passed: whoever waits for longer
  // asks the mapping's IsCurrent in between. A daemon of a version that wakes nobody is noticed,
  // and the ring looked at every 2 ms then. However the block is damaged, a loop of Next and Wait
  // does not spin.
  // Another thread ends the wait early when it sets `interrupted` and then calls WakeReaders until
  // Wait has returned: once may be just before this thread falls asleep.
  bool Wait(std::chrono::nanoseconds timeout, const std::atomic<bool>* interrupted = nullptr) {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::nanoseconds kNone{0};
    const auto end = Clock::now() + std::clamp(timeout, kNone, kLongestWait);
    for (;;) {
      // Before all else: what comes after this look changes the word, and the kernel does not let
      // us sleep.
      const std::uint32_t word = WaitWord();
      const std::chrono::nanoseconds left = end - Clock::now();
      if (HasNews()) {
        return true;
      }
      if (left <= kNone || (interrupted != nullptr && interrupted->load())) {
        return false;
      }
      const int outcome = Sleep(word, left);
      if (HasNews()) {
        NoteHowNewsCame(outcome);
        return true;
      }
      if (outcome == EINTR) {
        return false;
      }
      if (outcome != 0 && outcome != ETIMEDOUT) {
        Nap();  // somebody else scribbles on the word, or the system has no futex for us
      }
    }
  }

  const Counters& counters() const { return counters_; }

 private:
  static constexpr int kMaxAttempts = 4;
  static constexpr std::chrono::nanoseconds kPollPeriod{2'000'000};
  // After that, a look: a unit that is there without a wake-up tells that the writer wakes nobody.
  static constexpr std::chrono::nanoseconds kLongestSleep{100'000'000};
  static constexpr std::chrono::nanoseconds kLongestWait{1'000'000'000};
  static constexpr std::int64_t kNowhere = -1;
  // While the daemon writes the unit after the newest one, it overwrites the unit that is 199 older
  // than the newest. Everything up to 198 is safe.
  static constexpr std::uint16_t kMaxAge = kSlotCount - 2;
  // Where to go on after a lap: half of the ring is kept, half is the head start before the next.
  static constexpr std::uint16_t kReach = kSlotCount / 2;

  struct SlotHeader {
    std::uint32_t chunk_length;
    std::uint16_t unit_sequence;
    std::uint8_t chunk_index;
    bool operator==(const SlotHeader& other) const {
      return chunk_length == other.chunk_length && unit_sequence == other.unit_sequence &&
             chunk_index == other.chunk_index;
    }
    bool IsWholeUnit(std::uint16_t number) const {
      return unit_sequence == number && chunk_index == 0 && chunk_length >= 1 &&
             chunk_length <= kChunkCapacity;
    }
  };

  // Acquire: pairs with the writer's release, so the slots before it are as their headers say.
  std::uint16_t WriteIndex() const {
    return LoadShared16(block_ + kWriteIndexOffset, __ATOMIC_ACQUIRE);
  }
  std::uint16_t NewestUnit() const {
    return LoadShared16(block_ + kLastSequenceOffset, __ATOMIC_ACQUIRE);
  }

  SlotHeader LoadSlotHeader(std::size_t slot) const {
    const std::uint8_t* bytes = block_ + SlotOffset(slot);
    std::uint32_t length = 0;
    for (int i = 3; i >= 0; --i) {
      length = length << 8 | __atomic_load_n(bytes + kChunkLengthOffset + i, __ATOMIC_RELAXED);
    }
    return {length, LoadShared16(bytes + kUnitSequenceOffset, __ATOMIC_RELAXED),
            __atomic_load_n(bytes + kChunkIndexOffset, __ATOMIC_RELAXED)};
  }

  // Nothing published since the daemon started or cleared the ring: the slot before the write index
  // has never been written.
  bool RingIsFresh(std::uint16_t write_index) const {
    return write_index == 0 && LoadSlotHeader(kSlotCount - 1).chunk_length == 0;
  }

  static std::size_t SlotBefore(std::size_t slot, std::size_t distance) {
    return (slot + kSlotCount - distance) % kSlotCount;
  }

  static std::uint16_t Difference(std::uint16_t later, std::uint16_t earlier) {
    return static_cast<std::uint16_t>(later - earlier);
  }
  // A unit number never runs ahead of the newest one, unless the numbers began anew.
  static bool IsBackwards(std::uint16_t difference) { return difference > UINT16_MAX / 2; }

  // Units from the expected one to the newest one.
  std::uint16_t Unread(std::uint16_t newest) const {
    return static_cast<std::uint16_t>(Difference(newest, sequence_) + 1);
  }

  bool TakeNext(std::vector<std::uint8_t>& unit) {
    // A unit that was overwritten under our hands makes us resume further on; the writer needs the
    // time of many units to do that again, so a few tries are enough.
    for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
      const std::uint16_t write_index = WriteIndex();
      if (RingIsFresh(write_index)) {
        ExpectFirstUnit();
        return false;
      }
      if (attached_ && write_index == slot_ && Unread(NewestUnit()) == 0) {
        return false;
      }
      if (attached_ && TakeSlot(unit)) {
        return true;
      }
      if (!Resume()) {
        return false;
      }
    }
    return false;
  }

  // write_index and last_sequence as one number, to tell whether anything has happened.
  std::int64_t Indices() const {
    const std::int64_t index = WriteIndex();
    return index << 16 | NewestUnit();
  }

  // Whether Next is worth a try: something that it has not yet looked at in vain.
  bool HasNews() const {
    if (Indices() == nothing_at_) {
      return false;
    }
    const std::uint16_t write_index = WriteIndex();
    if (RingIsFresh(write_index)) {
      return attached_;  // Next is to see that the ring began anew
    }
    return !attached_ || write_index != slot_ || Unread(NewestUnit()) != 0;
  }

  // As a whole: bytes 6 and 7 mean nothing, but the kernel compares them, too.
  std::uint32_t WaitWord() const {
    return __atomic_load_n(reinterpret_cast<const std::uint32_t*>(block_ + kWaitWordOffset),
                           __ATOMIC_ACQUIRE);
  }

  int Sleep(std::uint32_t word, std::chrono::nanoseconds left) const {
    const auto write_index = static_cast<std::uint16_t>(word);
    // The next unit changes the word, unless the writer is just between its last two stores, or
    // somebody has spoiled the index: then nothing but last_sequence may tell of it.
    const bool word_will_tell = attached_ ? write_index == slot_ : RingIsFresh(write_index);
    const bool polls = writer_wakes_nobody_ || !word_will_tell;
    return FutexWait(block_ + kWaitWordOffset, word,
                     std::min(left, polls ? kPollPeriod : kLongestSleep));
  }

  void NoteHowNewsCame(int outcome) {
    if (outcome == 0) {
      writer_wakes_nobody_ = false;
    } else if (outcome == ETIMEDOUT) {
      writer_wakes_nobody_ = true;
    }
  }

  static void Nap() {
    const timespec pause = {0, static_cast<long>(kPollPeriod.count())};
    nanosleep(&pause, nullptr);
  }

  // After a clear the numbers carry on, after a start of the daemon they begin with 0: the first
  // unit tells. Until then the expected number stays as it was.
  void ExpectFirstUnit() {
    was_reset_ = was_reset_ || attached_;
    attached_ = false;
    reach_ = kReach;
  }

  // Copies the expected unit, if it is there, published, and stayed whole meanwhile.
  bool TakeSlot(std::vector<std::uint8_t>& unit) {
    const SlotHeader header = LoadSlotHeader(slot_);
    if (!header.IsWholeUnit(sequence_)) {
      return false;
    }
    unit.resize(header.chunk_length);
    std::memcpy(unit.data(), block_ + SlotOffset(slot_) + kSlotHeaderSize, header.chunk_length);
    // Pairs with the writer's release fences before it fills a slot and before it clears the ring.
    // If any byte above came from a later unit, the number read below is that of the unit before
    // it, or newer; if any came from a clear, the slot's header is no longer what it was.
    std::atomic_thread_fence(std::memory_order_acquire);
    if (Difference(NewestUnit(), sequence_) > kMaxAge || !(LoadSlotHeader(slot_) == header)) {
      return false;
    }
    slot_ = slot_ + 1 == kSlotCount ? 0 : slot_ + 1;
    ++sequence_;
    ++counters_.units;
    counters_.bytes += header.chunk_length;
    return true;
  }

  // Goes on, or begins, with the oldest unit that the ring holds in one piece with the newest one,
  // at most reach_ units back and none that was handed out already. False, and nothing changed,
  // when the writer is just at work on the ring or somebody has spoiled it; the daemon's next unit
  // mends it.
  bool Resume() {
    const std::uint16_t write_index = WriteIndex();
    const std::uint16_t newest = NewestUnit();
    const auto holds_unit_before = [&](std::uint16_t distance) {
      return LoadSlotHeader(SlotBefore(write_index, distance + 1U))
          .IsWholeUnit(Difference(newest, distance));
    };
    if (write_index >= kSlotCount || !holds_unit_before(0)) {
      return false;
    }
    std::uint16_t limit = reach_;
    if (attached_ && Unread(newest) < limit) {
      limit = Unread(newest);
    }
    std::uint16_t back = 0;
    while (back < limit && holds_unit_before(back)) {
      ++back;
    }
    MoveTo(SlotBefore(write_index, back), static_cast<std::uint16_t>(Difference(newest, back) + 1));
    return true;
  }

  void MoveTo(std::size_t slot, std::uint16_t sequence) {
    const bool moved = slot != slot_ || sequence != sequence_;
    if (was_reset_ || (attached_ && moved)) {
      CountGap(Difference(sequence, sequence_), slot == 0 && sequence == 0);
    }
    slot_ = slot;
    sequence_ = sequence;
    attached_ = true;
    was_reset_ = false;
    reach_ = kReach;
  }

  void CountGap(std::uint16_t gap, bool ring_begins_anew) {
    if (gap != 0 && (ring_begins_anew || IsBackwards(gap))) {
      ++counters_.restarts;
    } else {
      ++counters_.laps;
      counters_.lost += gap;
    }
  }

  const std::uint8_t* block_;
  std::uint16_t reach_;         // how far back to go for units, when the place in the ring is lost
  std::size_t slot_ = 0;        // where the next unit will stand
  std::uint16_t sequence_ = 0;  // and its number,
  bool attached_ = false;       // once there has been a unit
  bool was_reset_ = false;      // the ring began anew under this reader
  std::int64_t nothing_at_ = kNowhere;  // Indices() where Next last found nothing
  bool writer_wakes_nobody_ = false;
  Counters counters_;
};

}  // namespace kestrelbridge
