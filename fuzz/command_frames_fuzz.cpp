// Whatever stands in a batch of command data, the state record and the telemetry made of it stay in
// order, and what stands before a frame changes nothing.
//
//   input:   1 byte    bit 0: the frames' check sums are set right
//            ...       the batch

#include <string>

#include "camera/command_frame_scanner.h"
#include "fuzz/fuzz_stage.h"
#include "state/camera_state.h"
#include "state/status_decoding.h"
#include "state/telemetry.h"

namespace kestrelbridge::test {
namespace {

constexpr int kTextItems = 29;

void RequireSound(const CameraState& state) {
  for (const std::uint8_t flag : {state.camera_detected, state.ae, state.battery_charging}) {
    Require(flag <= 1, "a flag is 0 or 1");
  }
  Require(state.ev_value >= -3.0F && state.ev_value <= 3.0F, "ev lies on the camera's scale");
}

// The telemetry that the batch leads to.
std::string TelemetryAfter(std::span<const std::uint8_t> batch) {
  ClearCameraState();
  ScanCommandFrames(batch, DecodeSoundFrame);
  const CameraState state = SnapshotCameraState();
  RequireSound(state);
  const TextRecord text = BuildTextRecord(state);
  Require(text.length < text.buffer.size() && text.buffer[text.length - 1] == ',' &&
              std::ranges::count(std::span(text.buffer).first(text.length), '=') == kTextItems,
          "the text record is whole");
  const StatusRecord status = BuildStatusRecord(state);
  const HistogramRecord histogram = BuildHistogramRecord(state);
  std::string telemetry(text.buffer.begin(), text.buffer.begin() + std::ptrdiff_t(text.length));
  telemetry.append(status.begin(), status.end());
  return telemetry.append(histogram.begin(), histogram.end());
}

}  // namespace
}  // namespace kestrelbridge::test

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kestrelbridge;
  using namespace kestrelbridge::test;
  FuzzInput input(data, size);
  const bool seal = (input.Byte() & 1) != 0;
  std::vector<std::uint8_t> batch = ExactCopy(input.Bytes(size));
  if (seal) {
    SealFrames(batch);
  }
  const auto frame = CommandFrameAt(batch);
  Require(frame.empty() || (frame.data() == batch.data() && frame.size() == batch[1]),
          "a frame is as long as it says");
  const std::string telemetry = TelemetryAfter(batch);
  batch.insert(batch.begin(), 0);
  batch.shrink_to_fit();
  Require(TelemetryAfter(batch) == telemetry, "what stands before a frame changes nothing");
  DecodeStatusFrame(ExactCopy({data, size}));
  RequireSound(SnapshotCameraState());
  return 0;
}
