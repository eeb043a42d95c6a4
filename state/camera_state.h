// Everything the daemon knows about the connected camera, in one record.
//
//   status decoding (camera's receive thread)  -- one push -->  +-------------+
//   white balance (a command's thread)         -- wb_temp_set ->| CameraState |-- copy --> readers
//   telemetry (its thread)     -- histogram_time_ms back to 0 ->+-------------+
//
// Readers are telemetry and remote control.
//
// A field keeps its last value until the next push of the same kind; nothing is reset when pushes
// stop.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <type_traits>
#include <utility>

namespace kestrelbridge {

inline constexpr std::size_t kHistogramSize = 64;

// A setting that the camera reports as a small number is held twice: its code, and right after it
// the word for that code (state/vocabulary.h). Text fields always hold a terminating NUL. Before
// the first push of a kind has come, its numbers are zero and its texts empty.
struct CameraState {
  std::uint8_t camera_detected = 0;  // 1 from the first status push on
  std::uint8_t camera_model_code = 0;
  char camera_model[20] = {};
  std::uint8_t camera_mode_code = 0;
  char camera_mode[20] = {};
  std::uint32_t sd_free_mb = 0;
  char sd[20] = {};  // free space in gigabytes, empty when there is none
  std::uint32_t shots_left = 0;
  std::uint32_t rec_time_s = 0;  // of the current recording
  char rec_time[20] = {};
  std::uint32_t rec_time_left_s = 0;  // that the card still holds
  char rec_time_left[20] = {};
  std::int16_t voltage = 0;       // no push carries it
  std::int8_t battery_level = 0;  // percent
  // Bytes of the status push that the main application reads as they are.
  std::uint8_t status_byte_0 = 0;
  std::uint8_t status_byte_31 = 0;
  std::uint8_t status_byte_2 = 0;
  std::uint32_t histogram_time_ms = 0;  // StampOf(NowMs()) of the last one; 0: none that is current
  std::array<std::uint8_t, kHistogramSize> histogram{};
  std::uint8_t shot_mode_code = 0;
  char shot_mode[10] = {};
  std::uint8_t resolution_code = 0;
  char resolution[10] = {};
  std::uint8_t framerate_code = 0;
  char framerate[10] = {};
  std::uint8_t image_mode_code = 0;
  char image_mode[10] = {};
  std::uint8_t ae = 0;             // automatic exposure, 0 or 1
  std::uint16_t aperture_raw = 0;  // f-number x 100
  char aperture[10] = {};
  std::uint32_t shutter_raw = 0;  // exposure time in use, see FormatShutter
  char shutter[10] = {};
  std::uint32_t shutter_set_raw = 0;  // exposure time asked for
  char shutter_set[10] = {};
  std::uint16_t iso = 0;  // in use
  std::uint8_t iso_set_code = 0;
  char iso_set[10] = {};
  float ev_value = 0;
  char ev[10] = {};
  std::uint8_t color_mode_code = 0;
  char color_mode[20] = {};
  std::uint8_t wb_code = 0;
  char wb[20] = {};
  std::uint8_t wb_temp_code = 0;  // kelvin / 100
  float wb_temp = 0;              // kelvin
  float wb_temp_set = 0;          // kelvin, last one given to a custom white balance command
  std::uint8_t ratio_code = 0;
  char ratio[10] = {};
  std::uint8_t video_std_code = 0;
  char video_std[10] = {};
  std::uint8_t antiflicker_code = 0;
  char antiflicker[10] = {};
  std::uint8_t battery_charging = 0;  // 0 or 1
};

// The record and its guard. The mutex is held for one push by a writer and for one copy by a
// reader, so no reader sees half a push; nobody takes another lock, blocks or logs while holding
// it.
struct SharedCameraState {
  std::mutex mutex;
  CameraState record;
};
static_assert(std::is_trivially_destructible_v<SharedCameraState>,
              "the threads go on using it while the process ends");

// The process's one record; there from before main until the process is gone. Any thread, but
// outside of start-up and tests the three functions below are all one needs.
SharedCameraState& GetCameraState();

// A copy to work on at leisure. Any thread.
[[nodiscard]] CameraState SnapshotCameraState();

// Calls change(CameraState&) while the record is held. Keep it short. Any thread.
template <typename Change>
void UpdateCameraState(Change&& change) {
  SharedCameraState& shared = GetCameraState();
  const std::lock_guard lock(shared.mutex);
  std::forward<Change>(change)(shared.record);
}

// Forgets everything. Start-up, before the camera's endpoint is opened.
void ClearCameraState();

}  // namespace kestrelbridge
