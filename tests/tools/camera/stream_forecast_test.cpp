// The forecast and the daemon agree about any stream, however bad the radio link.
#include "tools/camera/stream_forecast.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "base/counters.h"
#include "session/camera_stream.h"
#include "support/camera_datagrams.h"
#include "tools/camera/datagram_faults.h"
#include "video/frame_buffers.h"

namespace kestrelbridge::test {
namespace {

std::vector<std::uint64_t> DaemonCounts() {
  const Counters& c = GetCounters();
  return {c.video_datagrams.Value(),   c.command_data_datagrams.Value(),
          c.ignored_datagrams.Value(), c.stray_video_datagrams.Value(),
          c.units_published.Value(),   c.published_bytes.Value(),
          c.units_corrupted.Value(),   c.units_not_published.Value()};
}

std::vector<std::uint64_t> ForecastCounts(const tools::ForecastCounters& c) {
  return {c.video_datagrams, c.command_data_datagrams,
          c.other_datagrams, c.stray_datagrams,
          c.whole_units,     c.whole_bytes,
          c.broken_units,    c.odd_units};
}

TEST(StreamForecast, AgreesWithTheDaemonAboutABadLink) {
  ASSERT_EQ(InitFrameBuffers(), 0);
  ASSERT_EQ(DaemonCounts(), std::vector<std::uint64_t>(8));
  tools::StreamForecast forecast;
  const auto deliver = [&](std::span<const std::uint8_t> datagram) {
    forecast.Take(datagram);
    ProcessCameraDatagram(datagram);
  };
  // Half of all datagrams are damaged, so that the few bytes that matter are hit, too.
  tools::DatagramFaults faults({.loss = 5, .duplicate = 5, .reorder = 5, .corrupt = 50}, 1);
  std::mt19937 random(1);
  testing::internal::CaptureStderr();  // "corrupted unit", thousands of times
  for (std::uint32_t unit = 0; unit < 20'000; ++unit) {
    Bytes bytes = MakeUnit(5 + random() % 100, unit);
    if (unit % 50 == 0) {
      bytes.resize(4);  // a start code and nothing behind it
    }
    for (Bytes& datagram : UnitDatagrams(7, bytes, 52)) {
      faults.Pass(datagram, deliver);
    }
  }
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(ForecastCounts(forecast.Counters()), DaemonCounts());
  for (const std::uint64_t count : DaemonCounts()) {
    EXPECT_GT(count, 0U);
  }
}

}  // namespace
}  // namespace kestrelbridge::test
