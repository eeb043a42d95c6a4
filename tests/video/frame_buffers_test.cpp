// The writer of the frame ring, seen from another process.
#include "video/frame_buffers.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "base/byte_order.h"
#include "base/run_paths.h"
#include "base/text_file.h"
#include "kestrelbridge/frame_block.h"
#include "support/mapped_block.h"
#include "support/temporary_folder.h"
#include "video/first_touch.h"
#include "video/numbered_unit.h"

namespace kestrelbridge::test {
namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

struct BlockHeader {
  int clear_request, last_sequence, write_index;
  bool operator==(const BlockHeader&) const = default;
};

BlockHeader HeaderOf(const MappedBlock& block) {
  return {LoadLe16(block.bytes(), kClearRequestOffset),
          LoadLe16(block.bytes(), kLastSequenceOffset), LoadLe16(block.bytes(), kWriteIndexOffset)};
}

std::span<const std::uint8_t> PayloadOf(const MappedBlock& block, std::size_t slot) {
  return block.bytes().subspan(SlotOffset(slot) + kSlotHeaderSize, kChunkCapacity);
}

bool AllZero(std::span<const std::uint8_t> bytes) {
  return std::ranges::all_of(bytes, [](std::uint8_t byte) { return byte == 0; });
}

bool SlotHolds(const MappedBlock& block, std::size_t slot, std::uint16_t sequence,
               std::span<const std::uint8_t> chunk, std::uint8_t chunk_index = 0) {
  const auto header = block.bytes().subspan(SlotOffset(slot), kSlotHeaderSize);
  return LoadLe32(header, 0) == chunk.size() && LoadLe16(header, 4) == sequence &&
         header[6] == chunk_index && header[7] == 0 &&
         std::ranges::all_of(header.subspan(8), [](std::uint8_t flag) { return flag == 1; }) &&
         std::ranges::equal(PayloadOf(block, slot).first(chunk.size()), chunk);
}

void Publish(std::uint32_t first, std::uint32_t count) {
  for (std::uint32_t i = 0; i < count; ++i) {
    PublishVideoUnit(NumberedUnit(first + i));
  }
}

void LeaveOldBlock(const char* name, std::size_t size) {
  std::filesystem::resize_file(std::string("/dev/shm/") + name, size);
  if (size > 0) {
    std::ranges::fill(MappedBlock(name).bytes(), std::uint8_t{0xFF});
  }
}

bool IsFreshBlock(const char* name, std::size_t size) {
  const MappedBlock block(name);
  return block.bytes().size() == size && block.mode() == 0600 && block.bytes()[0] == 1 &&
         AllZero(block.bytes().subspan(1));
}

TEST(FrameBuffers, StartUpTakesOverBlocksOfAnySizeAndContent) {
  for (const int old_size : {-1, 0, 4096, 13'003'624, 60'003'624, 70'000'000}) {
    SCOPED_TRACE(old_size);
    if (old_size >= 0) {
      LeaveOldBlock(kFrameBlockName, static_cast<std::size_t>(old_size));
      LeaveOldBlock(kTranscodingBlockName, static_cast<std::size_t>(old_size));
    }
    ASSERT_EQ(InitFrameBuffers(), 0);
    EXPECT_TRUE(IsFreshBlock(kFrameBlockName, 60'003'624));
    EXPECT_TRUE(IsFreshBlock(kTranscodingBlockName, 13'003'624));
  }
}

// What another user of the box has put in a block's place. Returns what the log says.
struct Intruder {
  const char* name;
  void (*put)(const std::string& path, const std::string& victim);
  bool removed;
  const char* line;
};
constexpr Intruder kIntruders[] = {
    {"link",
     [](const std::string& path, const std::string& victim) {
       std::filesystem::create_symlink(victim, path);
     },
     true, " removed, since it is a symbolic link of user root (0)\n"},
    {"FIFO", [](const std::string& path, const std::string&) { mkfifo(path.c_str(), 0666); }, true,
     " removed, since it is no plain file and belongs to user root (0)\n"},
    {"folder",
     [](const std::string& path, const std::string&) { std::filesystem::create_directory(path); },
     false, "(60003624 bytes): it is no plain file and belongs to user root (0)\n"},
};

TEST(FrameBuffers, WhatIsNoPlainFileIsRemovedOrRefused) {
  const std::string path = std::string("/dev/shm/") + kFrameBlockName;
  const std::string victim = "/run/victim";
  for (const Intruder& intruder : kIntruders) {
    std::ofstream(victim) << "secret";
    std::filesystem::remove(path);
    intruder.put(path, victim);
    CaptureStderr();
    EXPECT_EQ(InitFrameBuffers(), intruder.removed ? 0 : -1) << intruder.name;
    EXPECT_NE(GetCapturedStderr().find(intruder.line), std::string::npos) << intruder.name;
    EXPECT_EQ(ReadFile(victim), "secret") << intruder.name;
    EXPECT_TRUE(!intruder.removed || IsFreshBlock(kFrameBlockName, kFrameBlockSize));
  }
  std::filesystem::remove(path);
}

TEST(FrameBuffers, OurOwnBlockStaysWithItsGroupAndWithoutTheOthers) {
  const std::string path = std::string("/dev/shm/") + kFrameBlockName;
  ASSERT_EQ(InitFrameBuffers(), 0);
  struct stat before {};
  ASSERT_EQ(stat(path.c_str(), &before), 0);
  const struct {
    mode_t found, left;
  } rows[] = {{0666, 0660}, {0640, 0640}, {0604, 0600}, {0600, 0600}};
  for (const auto& row : rows) {
    ASSERT_EQ(chmod(path.c_str(), row.found), 0);
    EXPECT_EQ(InitFrameBuffers(), 0);
    struct stat after {};
    EXPECT_EQ(stat(path.c_str(), &after), 0);
    EXPECT_EQ(after.st_mode & ALLPERMS, row.left);
    EXPECT_EQ(after.st_ino, before.st_ino);
  }
}

TEST(FrameBuffers, AnotherUsersBlockIsLeftToTheDaemonThatPublishesThere) {
  const std::string path = std::string("/dev/shm/") + kFrameBlockName;
  std::ofstream(path) << "a stranger's";
  const int publishers = open(path.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(flock(publishers, LOCK_EX | LOCK_NB), 0);
  if (chown(path.c_str(), 1234, 1234) != 0) {
    std::puts("this user namespace knows no other user: it is our own, then");
  }
  CaptureStderr();
  EXPECT_EQ(InitFrameBuffers(), -1);
  EXPECT_NE(GetCapturedStderr().find("publishes here\n"), std::string::npos);
  EXPECT_EQ(ReadFile(path), "a stranger's");
  close(publishers);
  std::filesystem::remove(path);
}

// Needs a second user. Where the namespace has none, scripts/check-package is the test.
TEST(FrameBuffers, AnotherUsersBlockIsReplacedWhenWeMayAndElseRefused) {
  constexpr uid_t kStranger = 1234;
  constexpr uid_t kDaemon = 2345;
  const std::string path = std::string("/dev/shm/") + kFrameBlockName;
  for (const bool as_root : {true, false}) {
    std::ofstream(path) << "a stranger's";
    if (chown(path.c_str(), kStranger, kStranger) != 0) {
      std::puts("this user namespace knows no other user");
      return;
    }
    std::array<int, 2> log{};
    ASSERT_EQ(pipe(log.data()), 0);
    const pid_t daemon = fork();
    if (daemon == 0) {
      dup2(log[1], STDERR_FILENO);
      const bool is_daemon = as_root || setresuid(kDaemon, kDaemon, kDaemon) == 0;
      _exit(is_daemon && InitFrameBuffers() == (as_root ? 0 : -1) ? 0 : 1);
    }
    int status = 0;
    waitpid(daemon, &status, 0);
    EXPECT_EQ(status, 0) << as_root;
    std::string text(1000, '\0');
    EXPECT_GT(read(log[0], text.data(), text.size()), 0);
    EXPECT_NE(text.find("it belongs to user ? (1234)\n"), std::string::npos) << text;
    struct stat left {};
    EXPECT_EQ(stat(path.c_str(), &left), 0);
    EXPECT_EQ(left.st_uid, as_root ? 0 : kStranger);
  }
}

TEST(FrameBuffers, StartUpForgetsThePictureSizeOfTheRunBefore) {
  for (const char* path : {kVideoWidthPath, kVideoHeightPath}) {
    WriteTextFile(path, "1280");
  }
  ASSERT_EQ(InitFrameBuffers(), 0);
  EXPECT_FALSE(std::filesystem::exists(kVideoWidthPath));
  EXPECT_FALSE(std::filesystem::exists(kVideoHeightPath));
}

// Where this process maps the frame block to write it.
std::set<std::uint8_t*> WritersMappings() {
  std::set<std::uint8_t*> mappings;
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.ends_with(kFrameBlockName) && line.find(" rw-s ") != std::string::npos) {
      mappings.insert(reinterpret_cast<std::uint8_t*>(std::stoull(line, nullptr, 16)));
    }
  }
  return mappings;
}

// What a reader relies on that looks without a pause.
TEST(FrameBuffers, PayloadIsStoredBeforeItsHeaderAndThenTheIndexAndThenTheNumber) {
  std::set<std::uint8_t*> mappings = WritersMappings();
  const std::set<std::uint8_t*> earlier = mappings;
  ASSERT_EQ(InitFrameBuffers(), 0);
  mappings = WritersMappings();
  std::erase_if(mappings, [&](std::uint8_t* mapping) { return earlier.contains(mapping); });
  ASSERT_EQ(mappings.size(), 1U);
  std::uint8_t* const writers = *mappings.begin();
  const MappedBlock block(kFrameBlockName);
  const auto nothing = [] {};
  Publish(0, 1);
  {
    const FirstTouch trap(writers + SlotOffset(1), PROT_READ, nothing);
    PublishVideoUnit(NumberedUnit(1, 200'000));
    ASSERT_NE(trap.address(), nullptr);
    EXPECT_GE(trap.address() - writers, SlotOffset(1) + kSlotHeaderSize) << "payload first";
  }
  const auto unit = NumberedUnit(2, 200'000);
  bool whole = false;
  const FirstTouch trap(writers, PROT_READ, [&] { whole = SlotHolds(block, 2, 2, unit); });
  PublishVideoUnit(unit);
  EXPECT_TRUE(whole) << "the slot is whole before anything announces it";
  EXPECT_EQ(trap.address() - writers, kWriteIndexOffset);
}

TEST(FrameBuffers, FirstUnitClearsTheBlockOnceAndGoesToSlot0) {
  ASSERT_EQ(InitFrameBuffers(), 0);
  const MappedBlock block(kFrameBlockName);
  block.bytes()[10] = 0xAA;  // reserved: only a clear writes there
  PublishVideoUnit({});
  EXPECT_EQ(HeaderOf(block), (BlockHeader{1, 0, 0})) << "an empty unit is not published";
  CaptureStderr();
  Publish(0, 2);
  EXPECT_EQ(GetCapturedStderr(), "Clear frame shared memory\n");
  EXPECT_EQ(HeaderOf(block), (BlockHeader{0, 1, 2}));
  EXPECT_TRUE(AllZero(block.bytes().subspan(6, 18)));
  EXPECT_TRUE(SlotHolds(block, 0, 0, NumberedUnit(0)));
  EXPECT_TRUE(SlotHolds(block, 1, 1, NumberedUnit(1)));
}

TEST(FrameBuffers, SlotsAndNumbersGoRound) {
  ASSERT_EQ(InitFrameBuffers(), 0);
  const MappedBlock block(kFrameBlockName);
  const struct {
    std::uint32_t published;
    BlockHeader header;
    std::size_t slot;  // of the newest
  } rows[] = {{200, {0, 199, 0}, 199},
              {201, {0, 200, 1}, 0},
              {65'536, {0, 65'535, 136}, 135},
              {65'537, {0, 0, 137}, 136}};
  std::uint32_t published = 0;
  for (const auto& row : rows) {
    Publish(published, row.published - published);
    published = row.published;
    EXPECT_EQ(HeaderOf(block), row.header) << published;
    EXPECT_TRUE(SlotHolds(block, row.slot, static_cast<std::uint16_t>(published - 1),
                          NumberedUnit(published - 1)));
  }
}

TEST(FrameBuffers, ClearRequestEmptiesTheRingAndTheNumbersCarryOn) {
  ASSERT_EQ(InitFrameBuffers(), 0);
  const MappedBlock block(kFrameBlockName);
  Publish(0, 5);
  StoreLe16(block.bytes(), kClearRequestOffset, 0x0100);  // any value but 0
  CaptureStderr();
  Publish(5, 1);
  EXPECT_EQ(GetCapturedStderr(), "Clear frame shared memory\n");
  EXPECT_EQ(HeaderOf(block), (BlockHeader{0, 5, 1}));
  EXPECT_TRUE(SlotHolds(block, 0, 5, NumberedUnit(5)));
  EXPECT_TRUE(AllZero(block.bytes().subspan(SlotOffset(1))));
}

TEST(FrameBuffers, LongUnitIsCutIntoChunksAndCountsOnce) {
  ASSERT_EQ(InitFrameBuffers(), 0);
  const MappedBlock block(kFrameBlockName);
  const auto unit = NumberedUnit(0, 2 * kChunkCapacity + 1);
  const std::span<const std::uint8_t> bytes = unit;
  Publish(0, 1);
  PublishVideoUnit(unit);
  EXPECT_EQ(HeaderOf(block), (BlockHeader{0, 1, 4}));
  EXPECT_TRUE(SlotHolds(block, 1, 1, bytes.first(kChunkCapacity), 0));
  EXPECT_TRUE(SlotHolds(block, 2, 1, bytes.subspan(kChunkCapacity, kChunkCapacity), 1));
  EXPECT_TRUE(SlotHolds(block, 3, 1, bytes.last(1), 2));
}

TEST(FrameBuffers, WriteIndexThatLeadsOutOfTheRingIsTakenAs0) {
  ASSERT_EQ(InitFrameBuffers(), 0);
  const MappedBlock block(kFrameBlockName);
  Publish(0, 3);
  std::uint16_t sequence = 3;
  for (const int spoiled : {200, 201, 0x7FFF, 0xFFFF}) {
    StoreLe16(block.bytes(), kWriteIndexOffset, static_cast<std::uint16_t>(spoiled));
    Publish(sequence, 1);
    EXPECT_EQ(HeaderOf(block), (BlockHeader{0, sequence, 1})) << spoiled;
    EXPECT_TRUE(SlotHolds(block, 0, sequence, NumberedUnit(sequence))) << spoiled;
    ++sequence;
  }
}

}  // namespace
}  // namespace kestrelbridge::test
