// kestrelctl video, run for real; the test is the daemon and fills the ring.
#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "kestrelbridge/frame_block.h"
#include "support/camera_datagrams.h"
#include "support/child_process.h"
#include "support/mapped_block.h"
#include "support/temporary_folder.h"
#include "video/frame_buffers.h"

namespace kestrelbridge::test {
namespace {

TEST(VideoCommand, GoesOnAfterARestartOfTheDaemonAClearAndWithTheRingThatReplacesARemovedOne) {
  ASSERT_EQ(InitFrameBuffers(), 0);
  const TemporaryFolder folder;
  const std::string path = folder.File("ring.h264");
  ChildProcess video(Kestrelctl({"video", "--oldest", "--output", path}));
  std::string published;
  const auto write_on = [&](std::uint32_t count) {
    for (std::uint32_t i = 0; i < count; ++i) {
      const Bytes unit = MakeUnit(1000, i);
      PublishVideoUnit(unit);
      published.append(unit.begin(), unit.end());
    }
    EXPECT_TRUE(Eventually([&] { return ReadFile(path) == published; })) << video.Error();
  };
  write_on(3);
  ASSERT_EQ(InitFrameBuffers(), 0);
  write_on(2);
  RequestClear(MappedBlock(kFrameBlockName).data());
  write_on(1);
  shm_unlink(kFrameBlockName);
  ASSERT_EQ(InitFrameBuffers(), 0);
  write_on(2);
  video.Kill(SIGHUP);
  EXPECT_EQ(video.WaitForExit(), ExitedWith(0));
  EXPECT_EQ(CountLines(video.Error(), "units: 8, bytes: 8000, lost: 0, restarts: 2"), 1)
      << video.Error();
}

}  // namespace
}  // namespace kestrelbridge::test
