// kestrelctl video, run for real; the test is the daemon and fills the ring.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "kestrelbridge/frame_block.h"
#include "support/camera_datagrams.h"
#include "support/child_process.h"
#include "support/eventually.h"
#include "support/temporary_folder.h"
#include "video/frame_buffers.h"
#include "video/mapped_block.h"

namespace kestrelbridge {
namespace {

constexpr std::size_t kUnitSize = 1000;

Bytes Picture(std::uint32_t number) { return MakeUnit(kUnitSize, number); }

Bytes PictureWithParameterSet(std::uint32_t number) {
  Bytes unit = Picture(number);
  unit[4] = 0x27;
  return unit;
}

class VideoCommand : public testing::Test {
 protected:
  // No block yet. The memory of another test's block is given back, although it is still mapped.
  void SetUp() override {
    std::ignore = truncate("/dev/shm/kestrelbridge_framebuffer", 0);
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
  EXPECT_EQ(CountLines(video.Error(), "units: 8, bytes: 8000, lost: 0, restarts: 0"), 1);
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

TEST_F(VideoCommand, SaysWhatCannotBeWritten) {
  ASSERT_EQ(InitFrameBuffers(), 0);
  PublishPictures(3);
  ChildProcess video(Command({"--output", "/dev/full", "--oldest"}));
  EXPECT_EQ(video.WaitForExit(), ExitedWith(1));
  EXPECT_EQ(CountLines(video.Error(), "cannot write to /dev/full: No space left"), 1);
}

TEST_F(VideoCommand, FindsTheRingThatReplacesARemovedOne) {
  ASSERT_EQ(InitFrameBuffers(), 0);
  ChildProcess video(Command({"--oldest", "--output", path_}));
  PublishPictures(3);
  EXPECT_TRUE(Eventually([&] { return ReadFile(path_) == published_; })) << video.Error();
  shm_unlink(kFrameBlockName);
  ASSERT_EQ(InitFrameBuffers(), 0);
  PublishPictures(2);
  EXPECT_TRUE(Eventually([&] { return ReadFile(path_) == published_; })) << video.Error();
  video.Kill(SIGHUP);
  EXPECT_EQ(video.WaitForExit(), ExitedWith(0));
  EXPECT_EQ(CountLines(video.Error(), "units: 5, bytes: 5000, lost: 0, restarts: 1"), 1)
      << video.Error();
}

TEST_F(VideoCommand, GoesOnAfterARestartOfTheDaemonAndAfterAClear) {
  ASSERT_EQ(InitFrameBuffers(), 0);
  ChildProcess video(Command({"--oldest", "--output", path_}));
  const auto write_on = [&](std::uint32_t count) {
    PublishPictures(count);
    EXPECT_TRUE(Eventually([&] { return ReadFile(path_) == published_; })) << video.Error();
  };
  write_on(3);
  ASSERT_EQ(InitFrameBuffers(), 0);
  write_on(2);
  RequestClear(MappedBlock(kFrameBlockName).data());
  write_on(1);
  video.Kill(SIGINT);
  EXPECT_EQ(video.WaitForExit(), ExitedWith(0));
  EXPECT_EQ(CountLines(video.Error(), "units: 6, bytes: 6000, lost: 0, restarts: 1"), 1)
      << video.Error();
}

}  // namespace
}  // namespace kestrelbridge
