#include "control/remote_control.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>

#include "base/counters.h"
#include "base/thread.h"
#include "camera/camera_link.h"
#include "camera/command_frame_sender.h"
#include "control/camera_commands.h"
#include "control/stepping_commands.h"
#include "state/camera_state.h"
#include "state/vocabulary.h"

namespace kestrelbridge {
namespace {

constexpr useconds_t kWaitForCameraUs = 100'000;
constexpr useconds_t kPollPeriodUs = 20'000;
constexpr useconds_t kReopenPeriodUs = 1'000'000;

constexpr std::uint8_t kPhotoMode = 0;
constexpr std::uint8_t kVideoMode = 1;

std::uint8_t CameraMode() { return SnapshotCameraState().camera_mode_code; }

void SwapCameraMode() {
  const std::uint8_t mode = CameraMode();
  if (mode == kVideoMode) {
    SetCameraMode("photo");
  } else if (mode == kPhotoMode) {
    SetCameraMode("video");
  }
}

void RecordOrShoot() {
  const std::uint8_t mode = CameraMode();
  if (mode == kVideoMode) {
    SetRecording(true);
  }
  // Read anew: the camera may have gone to photo mode meanwhile, where it doesn't record.
  if (mode == kPhotoMode || (mode == kVideoMode && CameraMode() == kPhotoMode)) {
    TakeShot();
  }
}

void StopRecording() {
  if (CameraMode() == kVideoMode) {
    SetRecording(false);
  }
}

using Action = void (*)();

// What a channel does on arriving at a position; null: nothing.
struct Switch {
  std::size_t channel;
  Action at_plus;
  Action at_minus;
  Action at_zero = nullptr;
};

// In the order in which they are handled.
constexpr std::array kSwitches = {
    Switch{kRcModeSwitch, SwapCameraMode, SwapCameraMode},
    Switch{kRcRecordSwitch, RecordOrShoot, RecordOrShoot, StopRecording},
    Switch{kRcImageModeNext, NextImageMode, NextImageMode},
    Switch{kRcImageModePrev, PrevImageMode, PrevImageMode},
    Switch{kRcImageModeSwitch, NextImageMode, PrevImageMode},
    Switch{kRcIsoNext, NextIso, NextIso},
    Switch{kRcIsoPrev, PrevIso, PrevIso},
    Switch{kRcIsoSwitch, NextIso, PrevIso},
    Switch{kRcShutterNext, NextShutter, NextShutter},
    Switch{kRcShutterPrev, PrevShutter, PrevShutter},
    Switch{kRcShutterSwitch, NextShutter, PrevShutter},
    Switch{kRcColorNext, NextColor, NextColor},
    Switch{kRcColorPrev, PrevColor, PrevColor},
    Switch{kRcColorSwitch, NextColor, PrevColor},
    Switch{kRcWhiteBalanceNext, NextWhiteBalance, NextWhiteBalance},
    Switch{kRcWhiteBalancePrev, PrevWhiteBalance, PrevWhiteBalance},
    Switch{kRcWhiteBalanceSwitch, NextWhiteBalance, PrevWhiteBalance},
    Switch{kRcEvNext, NextEv, NextEv},
    Switch{kRcEvPrev, PrevEv, PrevEv},
    Switch{kRcEvSwitch, NextEv, PrevEv},
};

constexpr std::int8_t PositionOf(double value) {
  return static_cast<std::int8_t>(value > 0 ? 1 : value < 0 ? -1 : 0);  // not a number: 0
}

Action ActionAt(const Switch& row, std::int8_t position) {
  if (position == 0) {
    return row.at_zero;
  }
  return position > 0 ? row.at_plus : row.at_minus;
}

void HandleSwitch(const Switch& row, double value, std::int8_t& remembered) {
  const std::int8_t position = PositionOf(value);
  if (position == remembered) {
    return;
  }
  remembered = position;
  if (const Action action = ActionAt(row, position)) {
    action();
  }
}

// The middle of the slider is the middle of the steps. Limited before it becomes an integer, so any
// value but NaN will do.
std::size_t SliderIndex(double value) {
  const double middle = static_cast<double>(kEvSteps.size()) / 2;
  const double last = static_cast<double>(kEvSteps.size() - 1);
  return static_cast<std::size_t>(std::clamp(middle + middle * value, 0.0, last));
}

void HandleSlider(double value, std::size_t& remembered) {
  if (std::isnan(value)) {
    return;
  }
  const std::size_t index = SliderIndex(value);
  if (index != remembered) {
    SetEv(kEvSteps[index].data());
    remembered = index;
  }
}

// Start-up sets them before the thread exists; that thread alone uses them after.
constinit RcBlock rc_block{};
constinit RcValues rc_values{};
constinit RcMemory rc_memory{};
constinit pthread_t rc_thread{};

void PollBlock() {
  if (ReadRcBlock(rc_block, rc_values)) {
    HandleRcValues(rc_values, rc_memory);
    usleep(kPollPeriodUs);
  } else {
    usleep(kReopenPeriodUs);  // also between two losses of a block that somebody keeps on cutting
    OpenRcBlock(rc_block);
  }
}

void* RemoteControlThread(void* /*argument*/) {
  CountCommandFramesIn(GetCounters().rc_command_frames);
  for (;;) {
    if (CameraDataReceived()) {
      PollBlock();
    } else {
      usleep(kWaitForCameraUs);
    }
  }
}

}  // namespace

void HandleRcValues(const RcValues& values, RcMemory& memory) {
  for (const Switch& row : kSwitches) {
    HandleSwitch(row, values.channels[row.channel], memory.positions[row.channel]);
  }
  if (values.slider_enabled) {
    HandleSlider(values.channels[kRcEvSlider], memory.slider_index);
  }
}

int StartRemoteControl() {
  if (rc_block.bytes == nullptr && !OpenRcBlock(rc_block)) {
    OpenRcBlock(rc_block);
  }
  rc_memory = {};
  return StartThread(&rc_thread, "remote-control", RemoteControlThread, nullptr);
}

}  // namespace kestrelbridge
