// Whatever the remote-control process writes into its block, and however it cuts or removes it, the
// daemon keeps its memory in order and sends whole commands only.
//
//   input: records     1 byte    what happens before the next look at the block
//                      ...       its arguments, below

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "control/rc_block.h"
#include "control/remote_control.h"
#include "fuzz/fuzz_stage.h"
#include "state/camera_state.h"
#include "state/vocabulary.h"

namespace kestrelbridge::test {
namespace {

constexpr std::size_t kMostPackets = 2 * kRcChannelCount;

RcBlock block;

// The owner's ways.
enum Ways : std::uint8_t { kWrite, kSetChannel, kCut, kRemove, kChangeMode, kWays };

// What the owner does not manage is no matter here.
void Try(ssize_t /*result*/) {}

void Act(FuzzInput& input) {
  const int owner = shm_open(kRcBlockName, O_RDWR, 0);
  switch (input.Byte() % kWays) {
    case kWrite: {
      const std::size_t offset = input.Le16() % kRcBlockSize;
      const auto bytes = input.Bytes(std::min<std::size_t>(input.Byte(), kRcBlockSize - offset));
      Try(pwrite(owner, bytes.data(), bytes.size(), static_cast<off_t>(offset)));
      break;
    }
    case kSetChannel: {
      const std::size_t channel = kRcRecordSwitch + input.Byte() % 36U;  // all that are read
      const double value = static_cast<std::int8_t>(input.Byte()) / 64.0;
      Try(pwrite(owner, &value, sizeof value, static_cast<off_t>(RcChannelOffset(channel))));
      break;
    }
    case kCut:
      Try(ftruncate(owner, input.Le16()));
      break;
    case kRemove:
      shm_unlink(kRcBlockName);
      break;
    default:
      UpdateCameraState([mode = input.Byte()](CameraState& s) { s.camera_mode_code = mode; });
      break;
  }
  close(owner);
}

void Look(RcMemory& memory) {
  RcValues values;
  if (!ReadRcBlock(block, values)) {
    Require(OpenRcBlock(block) && ReadRcBlock(block, values), "a block that is lost is had again");
  }
  HandleRcValues(values, memory);
  Require(std::ranges::all_of(memory.positions, [](int p) { return p >= -1 && p <= 1; }) &&
              memory.slider_index < kEvSteps.size(),
          "what is remembered is a position");
  RequireSoundPackets(kMostPackets);
}

}  // namespace
}  // namespace kestrelbridge::test

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kestrelbridge;
  using namespace kestrelbridge::test;
  shm_unlink(kRcBlockName);
  Require(OpenRcBlock(block), "a block that is not there is created");
  ClearCameraState();
  RcMemory memory;
  FuzzInput input(data, size);
  while (!input.empty()) {
    Act(input);
    Look(memory);
  }
  return 0;
}
