// kestrelctl video, run for real; the test is the daemon and fills the ring.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include "base/run_paths.h"
#include "base/text_file.h"
#include "kestrelbridge/frame_block.h"
#include "support/camera_datagrams.h"
#include "support/child_process.h"
#include "support/eventually.h"
#include "video/frame_buffers.h"

namespace kestrelbridge {
namespace {

constexpr std::size_t kUnitSize = 1000;

Bytes Picture(std::uint32_t number) { return MakeUnit(kUnitSize, number); }

Bytes PictureWithParameterSet(std::uint32_t number) {
  Bytes unit = Picture(number);
  unit[4] = 0x27;
  return unit;
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class VideoCommand : public testing::Test {
 protected:
  // No block yet. The memory of another test's block is given back, although it is still mapped.
  void SetUp() override {
    std::ignore = truncate((std::string("/dev/shm/") + kFrameBlockName).c_str(), 0);
    shm_unlink(kFrameBlockName);
  }
  void TearDown() override { std::filesystem::remove(path_); }

  void Publish(const Bytes& unit) {
    PublishVideoUnit(unit);
    published_.append(unit.begin(), unit.end());
  }
  void PublishPictures(std::uint32_t count) {
    for (std::uint32_t i = 0; i < count; ++i) {
      Publish(Picture(i));
    }
  }

  static std::vector<std::string> Command(std::vector<std::string> options) {
    options.insert(options.begin(), {ProgramPath("kestrelctl"), "video"});
    return options;
  }

  // On the private /run of the test program.
  const std::string path_ = "/run/video_command_test.h264";
  std::string published_;  // what the file should hold
};

TEST_F(VideoCommand, WaitsForTheDaemonAndBeginsWithItsFirstUnit) {
  ChildProcess video(Command({"--output", path_, "--count", "5"}));
  ASSERT_TRUE(video.WaitForLine("waiting for the daemon"));
  ASSERT_EQ(InitFrameBuffers(), 0);
  PublishPictures(5);
  EXPECT_EQ(video.WaitForExit(), ExitedWith(0));
  EXPECT_EQ(ReadFile(path_), published_);
  EXPECT_EQ(CountLines(video.Error(), "waiting"), 1);
  EXPECT_EQ(CountLines(video.Error(), "units: 5, bytes: 5000, lost: 0, restarts: 0"), 1);
}

TEST_F(VideoCommand, BeginsInARunningRingWithTheNewestParameterSet) {
  ASSERT_EQ(InitFrameBuffers(), 0);
  PublishPictures(3);
  Publish(PictureWithParameterSet(3));
  PublishPictures(20);
  published_.clear();
  Publish(PictureWithParameterSet(4));
  PublishPictures(7);
  ChildProcess video(Command({"--count", "8"}));
  EXPECT_EQ(video.WaitForExit(), ExitedWith(0));
  EXPECT_EQ(video.Output(), published_);
}

TEST_F(VideoCommand, OldestBeginsWithAllThatTheRingHolds) {
  ASSERT_EQ(InitFrameBuffers(), 0);
  PublishPictures(9);
  ChildProcess video(Command({"--oldest", "--count", "9"}));
  EXPECT_EQ(video.WaitForExit(), ExitedWith(0));
  EXPECT_EQ(video.Output(), published_);
}

TEST_F(VideoCommand, LiveBeginsWithTheNextUnitAndStatisticsTellOfTheStream) {
  ASSERT_EQ(InitFrameBuffers(), 0);
  WriteTextFile(kVideoWidthPath, "1280");
  WriteTextFile(kVideoHeightPath, "720");
  Publish(PictureWithParameterSet(0));
  ChildProcess video(Command({"--live", "--stats", "--output", path_}));
  ASSERT_TRUE(video.WaitForLine("0.0 frames/s, 0.00 Mbit/s, lost 0, restarts 0, 1280x720"));
  published_.clear();
  PublishPictures(3);
  ASSERT_TRUE(Eventually([&] { return std::filesystem::file_size(path_) == 3 * kUnitSize; }));
  EXPECT_EQ(ReadFile(path_), published_);
  video.Kill(SIGINT);
  EXPECT_EQ(video.WaitForExit(), ExitedWith(0));
  EXPECT_EQ(CountLines(video.Error(), "units: 3"), 1);
}

TEST_F(VideoCommand, GoesOnWithTheFirstUnitOfARestartedDaemon) {
  ASSERT_EQ(InitFrameBuffers(), 0);
  PublishPictures(4);
  ChildProcess video(Command({"--oldest", "--output", path_, "--count", "6"}));
  ASSERT_TRUE(Eventually([&] {
    std::error_code absent;
    return std::filesystem::file_size(path_, absent) == 4 * kUnitSize;
  }));
  ASSERT_EQ(InitFrameBuffers(), 0);
  PublishPictures(2);
  EXPECT_EQ(video.WaitForExit(), ExitedWith(0));
  EXPECT_EQ(ReadFile(path_), published_);
  EXPECT_EQ(CountLines(video.Error(), "units: 6, bytes: 6000, lost: 0, restarts: 1"), 1);
}

TEST_F(VideoCommand, EndsInOrderWhenThePipeIsClosed) {
  ASSERT_EQ(InitFrameBuffers(), 0);
  PublishPictures(1);
  const std::string video = ProgramPath("kestrelctl") + " video --oldest";
  ChildProcess shell({"bash", "-c", "set -o pipefail; " + video + " | head -c 10"});
  EXPECT_EQ(shell.WaitForExit(), ExitedWith(0));
  EXPECT_EQ(CountLines(shell.Error(), "units: 1,"), 1) << shell.Error();
}

TEST_F(VideoCommand, EndsInOrderWhenNobodyReadsThePipe) {
  ASSERT_EQ(InitFrameBuffers(), 0);
  PublishPictures(100);
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  const int pipe = open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ChildProcess video(Command({"--oldest", "--output", path_}));
  EXPECT_TRUE(Eventually([&] {
    int waiting = 0;
    return ioctl(pipe, FIONREAD, &waiting) == 0 && waiting > 60'000;
  }));
  video.Kill(SIGTERM);
  EXPECT_EQ(video.WaitForExit(), ExitedWith(0));
  EXPECT_EQ(CountLines(video.Error(), "units: 6"), 1) << video.Error();
  close(pipe);
}

TEST_F(VideoCommand, EndsInOrderWhileItWaits) {
  const std::vector<std::string> by_itself = {"--stats", "--duration", "0.1"};
  ChildProcess limited(Command(by_itself));
  EXPECT_EQ(limited.WaitForExit(), ExitedWith(0));
  ChildProcess waiting(Command({}));
  ASSERT_TRUE(waiting.WaitForLine("waiting for the daemon"));
  waiting.Kill(SIGTERM);
  EXPECT_EQ(waiting.WaitForExit(), ExitedWith(0));
  EXPECT_EQ(CountLines(waiting.Error(), "units: 0, bytes: 0, lost: 0, restarts: 0"), 1);
}

TEST_F(VideoCommand, SaysWhatCannotBeDoneAndEndsWith1) {
  ASSERT_EQ(InitFrameBuffers(), 0);
  PublishPictures(3);
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_EQ(unlockpt(terminal), 0);
  const struct {
    std::vector<std::string> options;
    const char* message;
  } rows[] = {
      {{"--output", "/dev/full", "--oldest"}, "cannot write to /dev/full: No space left"},
      {{"--output", "/nowhere/video"}, "cannot open /nowhere/video: No such file"},
      {{"--output", "/run"}, "cannot open /run: Is a directory"},
      {{"--output", ptsname(terminal)}, "is a terminal and no place for video"},
      {{"--count", "0"}, "--count"},
      {{"--duration", "nan"}, "--duration"},
      {{"--duration", "-1"}, "--duration"},
      {{"--oldest", "--live"}, "excludes"},
      {{"--fast"}, "--fast"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.message);
    ChildProcess video(Command(row.options));
    EXPECT_EQ(video.WaitForExit(), ExitedWith(1));
    EXPECT_GE(CountLines(video.Error(), row.message), 1) << video.Error();
  }
  close(terminal);
}

TEST_F(VideoCommand, SaysWhoMayReadTheRing) {
  ASSERT_EQ(InitFrameBuffers(), 0);
  std::filesystem::permissions(std::string("/dev/shm/") + kFrameBlockName,
                               std::filesystem::perms::none);
  ChildProcess video({"setpriv", "--bounding-set=-dac_override,-dac_read_search",
                      ProgramPath("kestrelctl"), "video", "--stats"});
  EXPECT_EQ(video.WaitForExit(), ExitedWith(1));
  EXPECT_EQ(CountLines(video.Error(), "run this as the user that the daemon runs as"), 1)
      << video.Error();
}

}  // namespace
}  // namespace kestrelbridge
