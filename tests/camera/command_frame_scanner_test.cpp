#include "camera/command_frame_scanner.h"

#include <gtest/gtest.h>

#include "camera/packet_format.h"
#include "support/camera_datagrams.h"

namespace kestrelbridge::test {
namespace {

// Of 13 to 255 bytes.
Bytes MakeFrame(std::size_t length) {
  return CommandFrame(0x02, 0x80, Bytes(length - kFrameOverhead, 0x20), 1);
}

// In a heap block of exactly its size, so that AddressSanitizer sees any read beyond the batch.
std::size_t FrameLengthAt(const Bytes& bytes) {
  const Bytes exact(bytes);
  return CommandFrameAt(exact).size();
}

TEST(CommandFrame, IsFoundUpToTheLastByteOfTheBatchAndNotBeyond) {
  for (const std::size_t length : {13U, 80U, 255U}) {
    Bytes batch = MakeFrame(length);
    EXPECT_EQ(FrameLengthAt(batch), batch.size());
    batch.push_back(kFrameStart);
    EXPECT_EQ(FrameLengthAt(batch), batch.size() - 1);
    batch.pop_back();
    batch.pop_back();
    EXPECT_EQ(FrameLengthAt(batch), 0U) << "cut by the end of the batch";
  }
}

TEST(CommandFrame, NeedsEverythingRight) {
  const Bytes good = MakeFrame(20);
  for (std::size_t damaged = 0; damaged < good.size(); ++damaged) {
    Bytes frame = good;
    frame[damaged] ^= 0x10;
    EXPECT_EQ(FrameLengthAt(frame), 0U) << "byte " << damaged;
  }
  Bytes wrong_crc8 = good;
  wrong_crc8[3] ^= 0xFF;
  SealCommandFrame(wrong_crc8, 1);
  EXPECT_EQ(FrameLengthAt(wrong_crc8), 0U) << "the CRC-16 alone is not enough";
}

// Wherever in the batch, also where start bytes that open nothing stand before it.
TEST(CommandFrame, IsFoundBehindAnyNumberOfStrayStartBytes) {
  static int found = 0;
  found = 0;
  for (int strays = 0; strays < 5; ++strays) {
    Bytes batch(static_cast<std::size_t>(strays), kFrameStart);
    const Bytes frame = MakeFrame(20);
    batch.insert(batch.end(), frame.begin(), frame.end());
    ScanCommandFrames(batch, [](std::span<const std::uint8_t>) { ++found; });
    EXPECT_EQ(found, strays + 1);
  }
}

}  // namespace
}  // namespace kestrelbridge::test
