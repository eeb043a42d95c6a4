#include "state/telemetry.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "base/byte_order.h"
#include "base/counters.h"
#include "camera/camera_link.h"
#include "net/clock.h"
#include "net/udp_endpoint.h"
#include "state/main_app_link_record.h"

namespace kestrelbridge {
namespace {

constexpr useconds_t kTickUs = 100'000;
constexpr std::uint32_t kTicksPerText = 10;  // and per run of the watchdogs
constexpr std::uint32_t kTicksPerStatus = 2;
static_assert(kTicksPerText % kTicksPerStatus == 0);
constexpr std::uint32_t kHistogramLifeMs = 3000;

constexpr std::size_t kRecordTypeSize = 2;
// Status record: the camera's bytes; all others are positions for which no value is obtained.
constexpr std::size_t kStatusByte0Offset = 9;
constexpr std::size_t kStatusByte31Offset = 10;
constexpr std::size_t kStatusByte2Offset = 11;

// One key=value pair of the text record. `print` is snprintf with the key and its value.
struct TextItem {
  const char* key;
  int (*print)(std::span<char> room, const char* key, const CameraState& state);
};

template <auto number>
int Number(std::span<char> room, const char* key, const CameraState& state) {
  return std::snprintf(room.data(), room.size(), "%s=%d,", key, static_cast<int>(state.*number));
}

template <auto text>
int Text(std::span<char> room, const char* key, const CameraState& state) {
  return std::snprintf(room.data(), room.size(), "%s=%s,", key, state.*text);
}

template <auto number>
int WholeNumber(std::span<char> room, const char* key, const CameraState& state) {
  return std::snprintf(room.data(), room.size(), "%s=%1.0f,", key,
                       static_cast<double>(state.*number));
}

int SizeAtRate(std::span<char> room, const char* key, const CameraState& state) {
  return std::snprintf(room.data(), room.size(), "%s=%s@%s,", key, state.resolution,
                       state.framerate);
}

constexpr auto kTextItems = std::to_array<TextItem>({
    {"camera_detected", Number<&CameraState::camera_detected>},
    {"camera_model", Text<&CameraState::camera_model>},
    {"camera_mode", Text<&CameraState::camera_mode>},
    {"sd", Text<&CameraState::sd>},
    {"shots_left", Number<&CameraState::shots_left>},
    {"rec_time_left", Text<&CameraState::rec_time_left>},
    {"rec_time", Text<&CameraState::rec_time>},
    {"voltage", Number<&CameraState::voltage>},
    {"battery_level", Number<&CameraState::battery_level>},
    {"battery_level", Number<&CameraState::battery_level>},  // twice; its reader expects 29 items
    {"battery_charging", Number<&CameraState::battery_charging>},
    {"shot_mode", Text<&CameraState::shot_mode>},
    {"resolution", Text<&CameraState::resolution>},
    {"framerate", Text<&CameraState::framerate>},
    {"format", SizeAtRate},
    {"ae", Number<&CameraState::ae>},
    {"aperture", Text<&CameraState::aperture>},
    {"shutter", Text<&CameraState::shutter>},
    {"shutter_set", Text<&CameraState::shutter_set>},
    {"iso", Number<&CameraState::iso>},
    {"iso_set", Text<&CameraState::iso_set>},
    {"ev", Text<&CameraState::ev>},
    {"image_mode", Text<&CameraState::image_mode>},
    {"color_mode", Text<&CameraState::color_mode>},
    {"wb", Text<&CameraState::wb>},
    {"wb_temp", WholeNumber<&CameraState::wb_temp>},
    {"ratio", Text<&CameraState::ratio>},
    {"video_std", Text<&CameraState::video_std>},
    {"antiflicker", Text<&CameraState::antiflicker>},
});
static_assert(kTextItems.size() == 29);

bool HasDestination(const MainAppLink& link) {
  return link.destination_host[0] != '\0' && link.destination_port != 0;
}

// Precondition: the link has a destination.
int SendRecord(const MainAppLink& link, std::span<const std::uint8_t> record,
               OwnedCounter& records_sent) {
  const int sent = SendTo(link.command_endpoint, record, link.destination_host,
                          static_cast<std::uint16_t>(link.destination_port));
  if (sent != -1) {
    records_sent.Add();
  }
  return sent;
}

void CheckLinks() {
  MainAppLink& link = GetMainAppLink();
  CheckLink(link.command_endpoint);
  CheckLink(link.second_endpoint);
}

void SendBinaryRecords(const CameraState& state) {
  const MainAppLink& link = GetMainAppLink();
  if (!HasDestination(link)) {
    return;
  }
  SendRecord(link, BuildStatusRecord(state), GetCounters().status_records);
  if (state.histogram_time_ms != 0) {
    SendRecord(link, BuildHistogramRecord(state), GetCounters().histogram_records);
  }
}

void Tick(std::uint32_t tick) {
  const bool text_is_due = tick % kTicksPerText == 0;
  if (text_is_due) {
    CheckLinks();
  }
  if (tick % kTicksPerStatus != 0 || !CameraDataReceived()) {
    return;
  }
  const CameraState state = SnapshotCameraState();
  if (text_is_due) {
    SendTelemetryText(state);
  }
  SendBinaryRecords(state);
}

}  // namespace

TextRecord BuildTextRecord(const CameraState& state) {
  TextRecord record;
  record.buffer[0] = kTextRecordType;
  record.length = 1;
  const std::span room(reinterpret_cast<char*>(record.buffer.data()), record.buffer.size());
  for (const TextItem& item : kTextItems) {
    // The buffer holds all items with every text field full, so nothing is ever cut.
    record.length +=
        static_cast<std::size_t>(item.print(room.subspan(record.length), item.key, state));
  }
  return record;
}

StatusRecord BuildStatusRecord(const CameraState& state) {
  StatusRecord record{};
  StoreLe16(record, 0, kStatusRecordType);
  record[kStatusByte0Offset] = state.status_byte_0;
  record[kStatusByte31Offset] = state.status_byte_31;
  record[kStatusByte2Offset] = state.status_byte_2;
  return record;
}

HistogramRecord BuildHistogramRecord(const CameraState& state) {
  HistogramRecord record{};
  StoreLe16(record, 0, kHistogramRecordType);
  std::ranges::copy(state.histogram, record.begin() + kRecordTypeSize);
  return record;
}

int SendTelemetryText(const CameraState& state) {
  const TextRecord record = BuildTextRecord(state);
  const MainAppLink& link = GetMainAppLink();
  if (!HasDestination(link)) {
    return static_cast<int>(record.length - 1);
  }
  return SendRecord(link, std::span(record.buffer).first(record.length),
                    GetCounters().text_records);
}

void ExpireHistogram(std::uint32_t seen_ms, std::uint32_t now_ms) {
  if (seen_ms == 0 || now_ms - seen_ms <= kHistogramLifeMs) {
    return;
  }
  UpdateCameraState([seen_ms](CameraState& state) {
    if (state.histogram_time_ms == seen_ms) {
      state.histogram_time_ms = 0;
    }
  });
}

void* TelemetryThread(void* /*unused*/) {
  for (std::uint32_t tick = 0;; ++tick) {
    const std::uint32_t histogram_time_ms = SnapshotCameraState().histogram_time_ms;
    ExpireHistogram(histogram_time_ms, NowMs());
    Tick(tick);
    usleep(kTickUs);
  }
}

}  // namespace kestrelbridge
