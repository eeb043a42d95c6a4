// A clip goes in at the camera's end and comes out of the ring, through the real programs.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <set>

#include "end_to_end/clip_bench.h"
#include "end_to_end/daemon_bench.h"
#include "tools/annexb.h"

namespace kestrelbridge {
namespace {

constexpr std::size_t kDatagramSize = 1472;

class ClipAtRate : public testing::TestWithParam<ClipFormat> {};

TEST_P(ClipAtRate, ComesOutOfTheRingByteForByte) {
  const ClipFormat& format = GetParam();
  const TemporaryFolder folder;
  const std::string clip_path = folder.File("clip.h264");
  const std::string ring_path = folder.File("ring.h264");
  const std::string journal_path = folder.File("journal");
  MakeClip(format, clip_path);
  // The daemon holds the last unit back: only the next one's header would show that it is whole.
  const auto expected_units = static_cast<std::uint64_t>(format.units - 1);

  ChildProcess daemon(DaemonCommandFor(kOtherCameraPort));
  ASSERT_TRUE(daemon.WaitForLine("Init frame buffer for transcoding"));
  ChildProcess video(VideoTool(ring_path, {"--count", std::to_string(expected_units)}));
  ASSERT_TRUE(WaitUntilWatching(video));
  ChildProcess camera(CameraTool(clip_path, format, {"--journal", journal_path}));

  ASSERT_EQ(camera.WaitForExit(), ExitedWith(0)) << camera.Error();
  EXPECT_EQ(video.WaitForExit(), ExitedWith(0)) << video.Error();
  auto summary = Summary(camera);
  EXPECT_EQ(summary.at("units_sent"), expected_units + 1);
  EXPECT_EQ(summary.at("acknowledged"), expected_units);
  EXPECT_EQ(summary.at("bad_packets"), 0U) << camera.Output();
  EXPECT_EQ(CountLines(daemon.Error(), "corrupted unit"), 0);

  Bytes clip = ReadFile(clip_path);
  clip.resize(clip.size() - ReadJournal(journal_path).back().length);
  EXPECT_TRUE(ReadFile(ring_path) == clip) << "the ring's bytes are not the clip's";
  std::vector<std::string> pictures = PictureSums(clip_path);
  ASSERT_EQ(pictures.size(), expected_units + 1);
  pictures.pop_back();
  EXPECT_EQ(PictureSums(ring_path), pictures);
}

INSTANTIATE_TEST_SUITE_P(Clip, ClipAtRate,
                         testing::Values(ClipFormat{"1MbitPerSecond", 1, 30, 45},
                                         ClipFormat{"10MbitPerSecond", 10, 60, 90},
                                         ClipFormat{"100MbitPerSecond", 100, 250, 250}),
                         [](const auto& row) { return row.param.name; });

constexpr ClipFormat kSmallClip = {"Small", 8, 200, 400};  // units of 5,000 bytes, 4 datagrams

// What the daemon must make of a stream with losses. A unit gets through when the bytes that arrive
// between its header and the next header are as many as it announced: then, and only then, nothing
// of it was lost and nothing of a unit without a header came behind it. (Length is its only test:
// datagrams that are repeated and lost, or change places, inside one unit can pass it. Losses alone
// cannot, unless the sizes of what is missing and what is too much agree.)
struct Outcome {
  std::vector<std::size_t> published;  // numbers in the clip
  int corrupted = 0;
};

Outcome PlayJournal(const std::vector<JournalUnit>& sent) {
  Outcome outcome;
  std::size_t gathered = 0;
  std::size_t announced = 0;
  std::size_t current = 0;
  for (const JournalUnit& unit : sent) {
    std::size_t left = unit.length;
    for (std::size_t position = 0; position < unit.lost.size(); ++position) {
      const std::size_t overhead = position == 0 ? 32 : 20;  // wrapper and unit header
      const std::size_t bytes = std::min(left, kDatagramSize - overhead);
      left -= bytes;
      if (unit.lost[position]) {
        continue;
      }
      if (position != 0) {
        gathered += announced == 0 ? 0 : bytes;
        continue;
      }
      if (gathered != 0 && gathered == announced) {
        outcome.published.push_back(current);
      } else if (gathered != 0) {
        ++outcome.corrupted;
      }
      gathered = bytes;
      announced = unit.length;
      current = unit.clip_unit;
    }
  }
  return outcome;
}

TEST(LossyLink, CostsTheUnitsThatLostADatagramAndThoseBeforeALostHeader) {
  const TemporaryFolder folder;
  const std::string clip_path = folder.File("clip.h264");
  const std::string ring_path = folder.File("ring.h264");
  const std::string journal_path = folder.File("journal");
  MakeClip(kSmallClip, clip_path);

  ChildProcess daemon(DaemonCommandFor(kOtherCameraPort));
  ASSERT_TRUE(daemon.WaitForLine("Init frame buffer for transcoding"));
  ChildProcess video(VideoTool(ring_path));
  ASSERT_TRUE(WaitUntilWatching(video));
  ChildProcess camera(CameraTool(
      clip_path, kSmallClip,
      {"--loss", "5", "--seed", "7", "--journal", journal_path, "--datagram-size", "1472"}));
  ASSERT_EQ(camera.WaitForExit(), ExitedWith(0)) << camera.Error();

  const Outcome expected = PlayJournal(ReadJournal(journal_path));
  ASSERT_GT(expected.corrupted, 10);
  ASSERT_GT(expected.published.size(), 100U);
  const Bytes clip = ReadFile(clip_path);
  const std::vector<AccessUnit> units = SplitAccessUnits(clip);
  Bytes expected_bytes;
  for (const std::size_t number : expected.published) {
    expected_bytes.insert(expected_bytes.end(), units[number].begin(), units[number].end());
  }
  EXPECT_TRUE(Eventually([&] {
    std::error_code missing;
    return std::filesystem::file_size(ring_path, missing) >= expected_bytes.size();
  }));
  EXPECT_TRUE(ReadFile(ring_path) == expected_bytes);
  EXPECT_EQ(CountLines(daemon.Error(), "corrupted unit"), expected.corrupted);
  EXPECT_EQ(Summary(camera).at("acknowledged"), expected.published.size());
}

// As the main application would.
void AskForClear() {
  const int block = shm_open(kFrameBlockName, O_RDWR | O_CLOEXEC, 0);
  void* mapped = mmap(nullptr, kFrameBlockSize, PROT_READ | PROT_WRITE, MAP_SHARED, block, 0);
  close(block);
  ASSERT_NE(mapped, MAP_FAILED);
  RequestClear(static_cast<std::uint8_t*>(mapped));
  munmap(mapped, kFrameBlockSize);
}

// Waits until the file has grown by ten small units.
bool KeepsGrowing(const std::string& path) {
  std::error_code missing;
  const auto size = [&] {
    const auto bytes = std::filesystem::file_size(path, missing);
    return missing ? 0 : bytes;
  };
  const auto before = size();
  return Eventually([&] { return size() >= before + 50'000; });
}

TEST(VideoTool, GoesOnAfterARestartOfTheDaemonAndAfterAClear) {
  ForgetEarlierRuns();  // the tool begins with what an old ring still holds
  const TemporaryFolder folder;
  const std::string clip_path = folder.File("clip.h264");
  const std::string ring_path = folder.File("ring.h264");
  MakeClip(kSmallClip, clip_path);
  ChildProcess camera(CameraTool(clip_path, kSmallClip, {"--loop"}));
  ChildProcess video(VideoTool(ring_path));
  {
    const ChildProcess daemon(DaemonCommandFor(kOtherCameraPort));
    ASSERT_TRUE(KeepsGrowing(ring_path)) << video.Error();
  }
  ChildProcess daemon(DaemonCommandFor(kOtherCameraPort));
  // It clears by itself before its first unit.
  ASSERT_TRUE(daemon.WaitForLine("Clear frame shared memory"));
  EXPECT_TRUE(KeepsGrowing(ring_path)) << video.Error();
  AskForClear();
  ASSERT_TRUE(daemon.WaitForLine("Clear frame shared memory", Patience(), 2));
  EXPECT_TRUE(KeepsGrowing(ring_path)) << video.Error();

  video.Kill(SIGINT);
  EXPECT_EQ(video.WaitForExit(), ExitedWith(0)) << video.Error();
  const Bytes clip = ReadFile(clip_path);
  const Bytes ring = ReadFile(ring_path);
  std::set<Bytes> sent;
  for (const AccessUnit unit : SplitAccessUnits(clip)) {
    sent.emplace(unit.begin(), unit.end());
  }
  for (const AccessUnit unit : SplitAccessUnits(ring)) {
    ASSERT_TRUE(sent.contains(Bytes(unit.begin(), unit.end())))
        << "a unit that was never sent, " << unit.size() << " bytes, at byte "
        << unit.data() - ring.data() << " of " << ring.size();
  }
}

}  // namespace
}  // namespace kestrelbridge
