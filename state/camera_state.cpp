#include "state/camera_state.h"

namespace kestrelbridge {

SharedCameraState& GetCameraState() {
  static constinit SharedCameraState shared;
  return shared;
}

CameraState SnapshotCameraState() {
  SharedCameraState& shared = GetCameraState();
  const std::lock_guard lock(shared.mutex);
  return shared.record;
}

void ClearCameraState() {
  UpdateCameraState([](CameraState& state) { state = CameraState{}; });
}

}  // namespace kestrelbridge
