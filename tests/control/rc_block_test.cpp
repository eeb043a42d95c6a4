// The real block in a real /dev/shm, with owners of every temper.

#include "control/rc_block.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "control/remote_control.h"
#include "state/camera_state.h"
#include "support/camera_end.h"
#include "support/child_process.h"

namespace kestrelbridge::test {
namespace {

constexpr char kPath[] = "/dev/shm/shared_rc_raw";
constexpr char kOpened[] = "Shared raw RC mem opened\n";
constexpr char kCreating[] = "Creating new shared raw RC\n";
constexpr char kLost[] = "Shared raw RC mem was cut short or removed, opening it again\n";

class RcBlockTest : public CameraEnd {
 protected:
  RcBlockTest() { RemoveBlock(); }
  ~RcBlockTest() override { RemoveBlock(); }
  static void RemoveBlock() { unlink(kPath); }
  bool Read() { return ReadRcBlock(block_, values_); }

  RcBlock block_;
  RcValues values_;
};

// By who made it, not by what it holds.
TEST_F(RcBlockTest, LostAndAllZeroLetsTheSwitchesGoUnlessTheDaemonMadeItAnew) {
  constexpr std::size_t kSwitch = 139;
  const auto make_anew = [](std::size_t size) {
    std::ofstream(kPath, std::ios::binary) << std::string(size, '\0');
  };
  const struct {
    const char* what_happens;
    std::function<void()> before_the_loss_is_seen;
    std::function<void()> before_it_is_opened;
    const char* said;
    double position;
  } rows[] = {
      {"removed", RemoveBlock, [] {}, kCreating, 1},
      {"cut to nothing", [&] { make_anew(0); }, [] {}, kOpened, 1},
      {"cut", [] { EXPECT_EQ(truncate(kPath, 1000), 0); }, [] {}, kOpened, 1},
      {"removed and made by another", RemoveBlock, [&] { make_anew(1504); }, kOpened, 0},
      {"being made by another", RemoveBlock, [&] { make_anew(0); }, kOpened, 0},
      {"made anew in its place", [&] { make_anew(0); }, [&] { make_anew(1504); }, kOpened, 0},
  };
  for (const auto& row : rows) {
    RemoveBlock();
    make_anew(1504);
    RcBlock block;
    ASSERT_TRUE(OpenRcBlock(block));
    StoreRcChannel(block.bytes, kSwitch, 1);
    RcValues values;
    RcMemory memory;
    UpdateCameraState([](CameraState& state) { state.camera_mode_code = 1; });
    ASSERT_TRUE(ReadRcBlock(block, values));
    HandleRcValues(values, memory);
    row.before_the_loss_is_seen();
    EXPECT_FALSE(ReadRcBlock(block, values));
    row.before_it_is_opened();
    Log();
    ASSERT_TRUE(OpenRcBlock(block));
    EXPECT_EQ(Log(), row.said) << row.what_happens;
    for (int look = 0; look < 3; ++look) {
      ASSERT_TRUE(ReadRcBlock(block, values));
      EXPECT_EQ(values.channels[kSwitch], row.position) << row.what_happens;
      HandleRcValues(values, memory);
    }
    EXPECT_EQ(Log(), row.position == 1 ? "" : "Record stop\n") << row.what_happens;
    StoreRcChannel(block.bytes, 0, 0.5);
    ASSERT_TRUE(ReadRcBlock(block, values));
    EXPECT_EQ(values.channels[kSwitch], 0) << row.what_happens;
    StoreRcChannel(block.bytes, 0, 0);
    ASSERT_TRUE(ReadRcBlock(block, values));
    EXPECT_EQ(values.channels[0], 0) << "written, and all zero again: " << row.what_happens;
  }
  SentFrames();
}

TEST_F(RcBlockTest, ThatEveryUserMayWriteIsSaidAtEachOpening) {
  std::ofstream(kPath, std::ios::binary) << std::string(1504, '\0');
  for (const mode_t mode : {0600U, 0664U, 0602U, 0666U}) {
    ASSERT_EQ(chmod(kPath, mode), 0);
    ASSERT_TRUE(OpenRcBlock(block_));
    const std::string log = Log();
    EXPECT_EQ(CountLines(log, "Every user may write"), (mode & 2U) != 0 ? 1 : 0) << log;
    EXPECT_TRUE(log.starts_with(kOpened)) << log;
  }
}

TEST_F(RcBlockTest, CutAtAnyMomentIsNoSignal) {
  std::atomic<bool> goes_on{true};
  std::thread owner([&goes_on] {
    while (goes_on) {
      [[maybe_unused]] const int cut = truncate(kPath, 0);
      [[maybe_unused]] const int whole = truncate(kPath, 1504);
    }
  });
  int good_reads = 0;
  for (int round = 0; round < 3'000; ++round) {
    OpenRcBlock(block_);
    for (int read = 0; read < 10; ++read) {
      good_reads += Read() ? 1 : 0;
    }
  }
  goes_on = false;
  owner.join();
  EXPECT_GT(good_reads, 0);
}

TEST_F(RcBlockTest, ItsLossIsReportedAgainOnceItHasBeenWellForAWhile) {
  ASSERT_TRUE(OpenRcBlock(block_));
  Log();
  for (const std::uint32_t reads : {0U, kRcBlockWellAfterReads - 1, kRcBlockWellAfterReads}) {
    for (std::uint32_t i = 0; i < reads; ++i) {
      Read();
    }
    EXPECT_EQ(Log(), "");
    RemoveBlock();
    EXPECT_FALSE(Read());
    EXPECT_EQ(Log(), reads == kRcBlockWellAfterReads - 1 ? "" : kLost) << reads;
    ASSERT_TRUE(OpenRcBlock(block_));
    EXPECT_EQ(Log(), kCreating);
  }
}

TEST_F(RcBlockTest, ThatCannotBeHadIsReportedOnceHoweverOftenItIsTried) {
  const struct {
    unsigned long flags;  // of a /dev/shm mounted over the one of the test
    const char* options;
    const char* stands_there;  // a link of the block's name, or a file that fills the memory
    const char* message;
  } rows[] = {
      {0, "", kPath, "open@Too many levels of symbolic links"},
      {MS_RDONLY, "", nullptr, "open@Read-only file system"},
      // Refused at once, rather than fatal when it is touched.
      {0, "size=4096", "/dev/shm/filler", "reserve@No space left on device"},
  };
  for (const auto& row : rows) {
    ASSERT_EQ(mount("tmpfs", "/dev/shm", "tmpfs", row.flags, row.options), 0);
    if (row.stands_there == kPath) {
      ASSERT_EQ(symlink("/etc/passwd", kPath), 0);
    } else if (row.stands_there != nullptr) {
      std::ofstream(row.stands_there) << std::string(4096, 'x');
    }
    RcBlock block;
    for (int attempt = 0; attempt < 3; ++attempt) {
      EXPECT_FALSE(OpenRcBlock(block));
      EXPECT_EQ(block.bytes, nullptr);
    }
    std::string message = row.message;
    message.replace(message.find('@'), 1, " shared memory /dev/shm/shared_rc_raw (1504 bytes): ");
    EXPECT_EQ(Log(), kCreating + ("Cannot " + message + ", trying again\n"));
    EXPECT_EQ(umount2("/dev/shm", MNT_DETACH), 0);
    EXPECT_TRUE(OpenRcBlock(block)) << "once it can be had";
    EXPECT_EQ(Log(), kCreating);
    EXPECT_TRUE(ReadRcBlock(block, values_));
    RemoveBlock();
    Log();
  }
}

}  // namespace
}  // namespace kestrelbridge::test
