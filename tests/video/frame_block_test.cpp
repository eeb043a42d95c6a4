// The reader of the frame ring, against the real writer on the real shared memory.
#include "kestrelbridge/frame_block.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <thread>

#include "base/byte_order.h"
#include "support/eventually.h"
#include "support/mapped_block.h"
#include "video/first_touch.h"
#include "video/frame_buffers.h"
#include "video/numbered_unit.h"

namespace kestrelbridge::test {
namespace {

using Start = FrameBlockReader::Start;

// A daemon that has just started, and a second mapping of its block.
class FrameRing : public testing::Test {
 protected:
  void StartDaemon() {
    ASSERT_EQ(InitFrameBuffers(), 0);
    published_ = 0;
  }

  void SetUp() override {
    StartDaemon();
    block_ = std::make_unique<MappedBlock>(kFrameBlockName);
  }

  // Units are numbered from 0 with every start of the daemon.
  void Publish(std::uint32_t count) {
    for (std::uint32_t i = 0; i < count; ++i) {
      PublishVideoUnit(NumberedUnit(published_++));
    }
  }

  FrameBlockReader Attach(Start start = Start::kLive) const {
    return FrameBlockReader(block_->data(), start);
  }

  // The reader takes each unit as it comes.
  void Follow(FrameBlockReader& reader, std::uint32_t count) {
    std::vector<std::uint8_t> unit;
    for (std::uint32_t i = 0; i < count; ++i) {
      Publish(1);
      ASSERT_TRUE(reader.Next(unit));
      ASSERT_FALSE(reader.Next(unit));
    }
  }

  // Takes all that there is: "3-7" for units 3 to 7 in order, "none" for nothing.
  static std::string Drain(FrameBlockReader& reader) {
    std::vector<std::uint8_t> unit;
    if (!reader.Next(unit)) {
      return "none";
    }
    const std::uint32_t first = NumberOf(unit);
    std::uint32_t last = first;
    EXPECT_TRUE(IsIntact(unit));
    while (reader.Next(unit)) {
      EXPECT_TRUE(IsIntact(unit));
      EXPECT_EQ(NumberOf(unit), last + 1);
      last = NumberOf(unit);
    }
    return std::to_string(first) + "-" + std::to_string(last);
  }

  static std::string CountersOf(const FrameBlockReader& reader) {
    const auto& counters = reader.counters();
    return "lost " + std::to_string(counters.lost) + ", laps " + std::to_string(counters.laps) +
           ", restarts " + std::to_string(counters.restarts);
  }

  std::unique_ptr<MappedBlock> block_;
  std::uint32_t published_ = 0;
};

TEST_F(FrameRing, ReaderBeginsWithWhatComesOrWithTheOldestAtMost100Back) {
  const struct {
    Start start;
    std::uint32_t published;
    const char* taken;
    std::uint32_t later;
    const char* taken_later;
  } rows[] = {
      {Start::kLive, 0, "none", 7, "0-6"},       {Start::kLive, 10, "none", 3, "10-12"},
      {Start::kOldest, 0, "none", 7, "0-6"},     {Start::kOldest, 1, "0-0", 1, "1-1"},
      {Start::kOldest, 99, "0-98", 1, "99-99"},  {Start::kOldest, 100, "0-99", 1, "100-100"},
      {Start::kOldest, 101, "1-100", 0, "none"}, {Start::kOldest, 1000, "900-999", 0, "none"}};
  for (const auto& row : rows) {
    StartDaemon();
    Publish(row.published);
    FrameBlockReader reader = Attach(row.start);
    EXPECT_EQ(Drain(reader), row.taken);
    Publish(row.later);
    EXPECT_EQ(Drain(reader), row.taken_later);
    EXPECT_EQ(CountersOf(reader), "lost 0, laps 0, restarts 0");
    EXPECT_EQ(reader.counters().bytes, reader.counters().units * NumberedUnit(0).size());
  }
}

enum class Event { kNone, kClear, kRestart, kRestartWhileReaderLooks };

TEST_F(FrameRing, ReaderGoesOnAfterALapAClearAndARestart) {
  using enum Event;
  const struct {
    std::uint32_t before, unread;  // units taken, then units published in one go
    Event event;
    std::uint32_t after;
    const char* taken;
    const char* counters;
  } rows[] = {
      // A slow reader loses units from a whole round on.
      {57, 199, kNone, 0, "57-255", "lost 0, laps 0, restarts 0"},
      {57, 200, kNone, 0, "157-256", "lost 100, laps 1, restarts 0"},  // a round to the slot
      {57, 1000, kNone, 0, "957-1056", "lost 900, laps 1, restarts 0"},
      {65'530, 20, kNone, 0, "65530-65549", "lost 0, laps 0, restarts 0"},     // over the wrap
      {65'400, 400, kNone, 0, "65700-65799", "lost 300, laps 1, restarts 0"},  // over the wrap
      {57, 5, kClear, 3, "62-64", "lost 5, laps 1, restarts 0"},
      {300, 7, kClear, 100, "307-406", "lost 7, laps 1, restarts 0"},
      // The write index is 1 as before.
      {201, 0, kClear, 1, "201-201", "lost 0, laps 1, restarts 0"},
      {400, 0, kClear, 1, "400-400", "lost 0, laps 0, restarts 0"},  // slot 0 was next anyway
      // The reader polls before the first unit, as it does in a real restart, or does not.
      {57, 0, kRestartWhileReaderLooks, 90, "0-89", "lost 0, laps 0, restarts 1"},
      {1, 0, kRestartWhileReaderLooks, 1, "0-0", "lost 0, laps 0, restarts 1"},
      {200, 0, kRestart, 1, "0-0", "lost 0, laps 0, restarts 1"},
      {300, 0, kRestart, 99, "0-98", "lost 0, laps 0, restarts 1"},
      {203, 0, kRestart, 3, "0-2", "lost 0, laps 0, restarts 1"},  // the write index is 3 as before
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.before << "+" << row.unread << "+" << row.after);
    StartDaemon();
    FrameBlockReader reader = Attach();
    Follow(reader, row.before);
    Publish(row.unread);
    if (row.event == kClear) {
      RequestClear(block_->data());
    } else if (row.event != kNone) {
      StartDaemon();
    }
    if (row.event == kRestartWhileReaderLooks) {
      EXPECT_EQ(Drain(reader), "none");
    }
    Publish(row.after);
    EXPECT_EQ(Drain(reader), row.taken);
    EXPECT_EQ(CountersOf(reader), row.counters);
  }
}

struct Damage {
  const char* what;
  void (*inflict)(std::span<std::uint8_t> block);
  bool to_the_unit = false;  // else it lies whole in the ring, and may still be taken
};

// Inflicted on a ring of 50 units.
const Damage kDamages[] = {
    {"write index just outside", [](auto block) { StoreLe16(block, kWriteIndexOffset, 200); }},
    {"write index elsewhere", [](auto block) { StoreLe16(block, kWriteIndexOffset, 120); }},
    {"write index 0", [](auto block) { StoreLe16(block, kWriteIndexOffset, 0); }},
    {"last sequence back", [](auto block) { StoreLe16(block, kLastSequenceOffset, 20); }},
    {"last sequence ahead", [](auto block) { StoreLe16(block, kLastSequenceOffset, 5000); }},
    {"no length", [](auto block) { StoreLe32(block, SlotOffset(49), 0); }, true},
    {"length just too long", [](auto block) { StoreLe32(block, SlotOffset(49), 300'001); }, true},
    {"second chunk", [](auto block) { block[SlotOffset(49) + kChunkIndexOffset] = 1; }, true},
    {"another number", [](auto block) { StoreLe16(block, SlotOffset(49) + 4, 48); }, true},
    {"all ones", [](auto block) { std::ranges::fill(block.subspan(2), std::uint8_t{0xFF}); }},
    {"header zero", [](auto block) { std::ranges::fill(block.first(24), std::uint8_t{0}); }},
};

TEST_F(FrameRing, UnitThatChangesWhileItIsCopiedIsNotHandedOut) {
  const struct {
    const char* what;
    void (*happens)(std::span<std::uint8_t> block);
    bool taken;
  } rows[] = {
      {"a clear begins",
       [](auto block) { std::ranges::fill(block.subspan(SlotOffset(1), 18), std::uint8_t{0}); },
       false},
      {"the writer has come round to it",
       [](auto block) { StoreLe16(block, kLastSequenceOffset, 1 + 199); }, false},
      {"nearly so", [](auto block) { StoreLe16(block, kLastSequenceOffset, 1 + 198); }, true},
  };
  for (const auto& row : rows) {
    StartDaemon();
    Publish(1);
    FrameBlockReader reader = Attach();
    PublishVideoUnit(NumberedUnit(1, 200'000));
    const FirstTouch trap(block_->data() + SlotOffset(1) + 100'000, PROT_NONE,
                          [&] { row.happens(block_->bytes()); });
    std::vector<std::uint8_t> unit;
    EXPECT_EQ(reader.Next(unit), row.taken) << row.what;
    EXPECT_NE(trap.address(), nullptr) << row.what;
  }
}

TEST(FrameBlockMapping, OpensOnceTheDaemonHasMadeTheBlock) {
  shm_unlink(kFrameBlockName);
  FrameBlockMapping mapping;
  EXPECT_FALSE(mapping.Open());
  EXPECT_EQ(errno, ENOENT);
  const int descriptor = shm_open(kFrameBlockName, O_RDWR | O_CREAT, 0600);
  ASSERT_EQ(ftruncate(descriptor, kFrameBlockSize - 1), 0);
  close(descriptor);
  EXPECT_FALSE(mapping.Open());
  EXPECT_EQ(errno, EAGAIN);
  ASSERT_EQ(InitFrameBuffers(), 0);
  EXPECT_TRUE(mapping.Open());
  EXPECT_EQ(mapping.data()[0], 1);
}

// As a daemon of a version that wakes nobody.
void PublishSilently(std::uint8_t* block, std::span<const std::uint8_t> unit,
                     std::uint16_t sequence) {
  const std::uint16_t index = LoadShared16(block + kWriteIndexOffset, __ATOMIC_RELAXED);
  const std::span slot(block + SlotOffset(index), kSlotSize);
  std::atomic_thread_fence(std::memory_order_release);
  std::ranges::copy(unit, slot.begin() + kSlotHeaderSize);
  StoreLe32(slot, kChunkLengthOffset, static_cast<std::uint32_t>(unit.size()));
  StoreLe16(slot, kUnitSequenceOffset, sequence);
  StoreShared16(block + kWriteIndexOffset, static_cast<std::uint16_t>((index + 1) % kSlotCount),
                __ATOMIC_RELEASE);
  StoreShared16(block + kLastSequenceOffset, sequence, __ATOMIC_RELEASE);
}

// A process of its own that publishes without a pause, until it is killed. Its units count on
// through clears (asked for by the test) and starts of the daemon.
pid_t StartRestlessWriter(std::uint32_t units_between_starts, std::uint8_t* silent_block) {
  const pid_t writer = fork();
  if (writer != 0) {
    return writer;
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  std::freopen("/dev/null", "we", stderr);
  std::mt19937 random(2);
  for (std::uint32_t number = 0;; ++number) {
    if (number % units_between_starts == 0) {
      if (InitFrameBuffers() != 0) {
        _exit(1);
      }
    }
    const auto unit = NumberedUnit(number, 50'000 + random() % 49'999);
    if (silent_block == nullptr) {
      PublishVideoUnit(unit);
    } else {
      PublishSilently(silent_block, unit,
                      static_cast<std::uint16_t>(number % units_between_starts));
    }
  }
}

// Lets the writer go on by so many units, and returns without delay.
bool AwaitUnits(const std::uint8_t* block, std::uint32_t count) {
  const auto newest = [&] { return LoadShared16(block + kLastSequenceOffset, __ATOMIC_ACQUIRE); };
  const std::uint16_t before = newest();
  const auto deadline = std::chrono::steady_clock::now() + Patience();
  while (static_cast<std::uint16_t>(newest() - before) < count) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
  }
  return true;
}

TEST_F(FrameRing, NoUnitIsTornOrRepeatedWhileTheWriterRacesAhead) {
  constexpr std::uint32_t kNever = UINT32_MAX;
  constexpr int kMostUnitsInARound = 400;
  const struct {
    std::uint32_t units_between_starts;
    bool clears;
    bool wakes;
  } races[] = {
      {kNever, false, true}, {kNever, true, true}, {900, false, true}, {900, false, false}};
  for (const auto& race : races) {
    StartDaemon();
    FrameBlockReader reader = Attach();
    const pid_t writer =
        StartRestlessWriter(race.units_between_starts, race.wakes ? nullptr : block_->data());
    std::vector<std::uint8_t> unit;
    std::int64_t last = -1;
    std::mt19937 random(3);
    for (int round = 0; round < 6; ++round) {
      // Mostly to where the writer has come round to the very unit that is read next.
      ASSERT_TRUE(AwaitUnits(block_->data(),
                             round % 3 == 0 ? static_cast<std::uint32_t>(random() % 300) : 200));
      // A reader that is slower than the writer, as under emulation, never comes to the end.
      for (int read = 0; read < kMostUnitsInARound; ++read) {
        if (!reader.Next(unit)) {
          reader.Wait(std::chrono::milliseconds{20});
          continue;
        }
        ASSERT_TRUE(IsIntact(unit)) << "after unit " << last;
        ASSERT_GT(NumberOf(unit), last);
        last = NumberOf(unit);
        if (race.clears && random() % 256 == 0) {
          RequestClear(block_->data());
        }
      }
    }
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
    EXPECT_GT(reader.counters().laps, 0U);
    EXPECT_EQ(reader.counters().restarts > 0, race.units_between_starts != kNever);
  }
}

// Does something again and again until whoever sleeps on the ring's word has been woken by it.
template <typename Action>
bool WakesASleeper(const std::uint8_t* block, Action action) {
  std::atomic<bool> woken = false;
  std::thread sleeper([&] {
    const std::uint8_t* const word = block + kWaitWordOffset;
    const auto deadline = std::chrono::steady_clock::now() + Patience();
    while (!woken && std::chrono::steady_clock::now() < deadline) {
      woken = FutexWait(word, LoadLe32({word, sizeof(std::uint32_t)}, 0),
                        std::chrono::milliseconds{50}) == 0;
    }
  });
  const bool done = Eventually([&] {
    action();
    return woken.load();
  });
  sleeper.join();
  return done;
}

TEST_F(FrameRing, UnitAndAClearWakeWhoSleeps) {
  Publish(1);  // which clears the ring
  FrameBlockMapping read_only;
  ASSERT_TRUE(read_only.Open());
  EXPECT_TRUE(WakesASleeper(read_only.data(), [this] { Publish(1); }));
  EXPECT_TRUE(WakesASleeper(read_only.data(), [this] { StartDaemon(); }));
}

TEST_F(FrameRing, WaitEndsWithAUnitOrWithTheTime) {
  using std::chrono::milliseconds;
  std::vector<std::uint8_t> unit;
  FrameBlockReader reader = Attach();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(reader.Wait(milliseconds{30}));
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds{30});
  EXPECT_FALSE(reader.Wait(milliseconds{-1}));
  for (int i = 0; i < 3; ++i) {
    Publish(2);
    EXPECT_TRUE(reader.Wait({}));
    EXPECT_EQ(Drain(reader), std::to_string(2 * i) + "-" + std::to_string(2 * i + 1));
    EXPECT_FALSE(reader.Wait({}));
  }
  StartDaemon();
  EXPECT_TRUE(reader.Wait({})) << "the ring began anew";
  EXPECT_EQ(Drain(reader), "none");
  EXPECT_FALSE(reader.Wait({}));
  shm_unlink(kFrameBlockName);
  EXPECT_FALSE(reader.Wait(std::chrono::hours{1})) << "lets its caller ask IsCurrent";
}

TEST_F(FrameRing, UnitIsTakenSoonAlsoFromADaemonThatWakesNobody) {
  using Clock = std::chrono::steady_clock;
  Publish(1);
  FrameBlockReader reader = Attach();
  std::vector<std::uint8_t> unit;
  // On a busy machine the longest ways tell nothing, the shortest one does.
  auto shortest = Clock::duration::max();
  for (std::uint16_t number = 1; number <= 10; ++number) {
    Clock::time_point published;
    std::thread writer([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds{5});
      published = Clock::now();
      PublishSilently(block_->data(), NumberedUnit(number), number);
    });
    while (!reader.Next(unit)) {
      reader.Wait(std::chrono::seconds{1});
    }
    const auto taken = Clock::now();
    writer.join();
    EXPECT_EQ(NumberOf(unit), number);
    shortest = std::min(shortest, taken - published);
  }
  EXPECT_LT(shortest, std::chrono::milliseconds{50});
}

TEST_F(FrameRing, GarbageBesideTheIndexNeitherHidesUnitsNorCostsTime) {
  Publish(1);
  FrameBlockReader reader = Attach();
  std::uint8_t* const garbage = block_->data() + kWaitWordOffset + 2;
  StoreShared16(garbage, 0xABCD, __ATOMIC_RELAXED);
  EXPECT_TRUE(WakesASleeper(block_->data(), [this] { Publish(1); }));
  Drain(reader);
  std::atomic<bool> ends = false;
  std::thread scribbler([&] {
    for (std::uint16_t value = 0; !ends; ++value) {
      StoreShared16(garbage, value, __ATOMIC_RELAXED);
    }
  });
  const auto processor_time = [] {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds{time.tv_sec} + std::chrono::nanoseconds{time.tv_nsec};
  };
  const auto before = processor_time();
  EXPECT_FALSE(reader.Wait(std::chrono::milliseconds{500}));
  EXPECT_LT(processor_time() - before, std::chrono::milliseconds{100});
  Publish(1);
  EXPECT_TRUE(reader.Wait(std::chrono::seconds{1}));
  ends = true;
  scribbler.join();
}

}  // namespace
}  // namespace kestrelbridge::test
