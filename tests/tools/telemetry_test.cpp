// Telemetry taken apart and shown: the daemon's own records, and what anybody may send.

#include "state/telemetry.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/udp_socket.h"
#include "tools/foreign_text.h"
#include "tools/host_port.h"
#include "tools/telemetry_lines.h"
#include "tools/telemetry_records.h"
#include "tools/telemetry_view.h"

namespace kestrelbridge {
namespace {

using namespace std::string_literals;
using Datagram = std::vector<std::uint8_t>;

Datagram FromText(const std::string& text) { return {text.begin(), text.end()}; }

CameraState SomeState() {
  CameraState state;
  std::snprintf(state.camera_model, sizeof state.camera_model, "DJI Osmo Action");
  state.battery_level = 87;
  for (std::size_t i = 0; i < kHistogramSize; ++i) {
    state.histogram[i] = static_cast<std::uint8_t>(i * 4);
  }
  return state;
}

Datagram TextDatagram() {
  const TextRecord text = BuildTextRecord(SomeState());
  return {text.buffer.begin(), text.buffer.begin() + static_cast<std::ptrdiff_t>(text.length)};
}

template <typename Record>
Datagram ToDatagram(const Record& record) {
  return {record.begin(), record.end()};
}

// All that the tool can make of a datagram.
struct Shown {
  TelemetryRecord record;
  std::string line;
  std::string json;
};

Shown Show(const Datagram& datagram) {
  const UdpPeer sender = *ParseHostPort("127.0.0.1:40000");
  Shown shown = {.record = ParseTelemetryRecord(datagram), .line = {}, .json = {}};
  shown.line = PlainLine(shown.record, sender);
  shown.json = JsonLine(shown.record, sender);
  const TelemetryView::Time start;
  TelemetryView view(start);
  view.Take(shown.record, sender, start);
  for (const std::string& line : view.Lines(start)) {
    EXPECT_EQ(line.find_first_of("\x1b\n\r"), std::string::npos);
  }
  return shown;
}

bool IsPrintable(const std::string& text) {
  return std::ranges::all_of(text, [](char c) { return c >= ' ' && c <= '~'; });
}

TEST(TelemetryRecords, TheTextIsTakenApartIntoItsItemsEachKeyOnce) {
  const Shown shown = Show(TextDatagram());
  ASSERT_EQ(shown.record.type, RecordType::kText);
  EXPECT_EQ(shown.record.items.size(), 28U);  // of 29; one key comes twice
  EXPECT_EQ(ItemValue(shown.record, "camera_model"), "DJI Osmo Action");
  EXPECT_EQ(ItemValue(shown.record, "battery_level"), "87");
  EXPECT_EQ(ItemValue(shown.record, "sd"), "");
  EXPECT_EQ(ItemValue(shown.record, "speed"), std::nullopt);
  EXPECT_TRUE(shown.line.starts_with("text 127.0.0.1:40000 camera_detected=0,")) << shown.line;
}

TEST(TelemetryRecords, AnythingElseIsUnknownAndShownAsBytes) {
  Datagram long_status = ToDatagram(BuildStatusRecord({}));
  long_status.push_back(0);
  Datagram short_histogram = ToDatagram(BuildHistogramRecord({}));
  short_histogram.pop_back();
  std::vector<Datagram> rows = {
      {}, {7}, {6}, {6, 0}, {6, 1}, {6, 2}, Datagram(65'507, 0xFF), long_status, short_histogram};
  for (const char* text : {"\x07iso=1", "\x07iso=1,ev", "\x07iso=1,,", "\x07=1,", "iso=1,"}) {
    rows.push_back(FromText(text));
  }
  for (const Datagram& row : rows) {
    const Shown shown = Show(row);
    EXPECT_EQ(shown.record.type, RecordType::kUnknown) << shown.line;
    const std::string size = std::to_string(row.size());
    EXPECT_TRUE(shown.line.starts_with("unknown 127.0.0.1:40000 " + size + " bytes"));
    EXPECT_NE(shown.json.find("\"length\":" + size + ","), std::string::npos);
  }
  EXPECT_EQ(Show({6, 2}).line, "unknown 127.0.0.1:40000 2 bytes: 06 02");
}

TEST(TelemetryRecords, AForeignTextNeitherMovesTheCursorNorBreaksTheJson) {
  const Shown shown =
      Show(FromText("\x07"
                    "a\x1b[2J=\"\\\n\0\x7f,type=x,sender=y,b=\xff\xc3\xa4,b=again,"s));
  ASSERT_EQ(shown.record.type, RecordType::kText);
  EXPECT_TRUE(IsPrintable(shown.line)) << shown.line;
  EXPECT_EQ(shown.json, R"({"type":"text","sender":"127.0.0.1:40000",)"
                        R"("a\u001b[2J":"\"\\\u000a\u0000\u007f","b":"\ufffdä"})");
}

TEST(TelemetryRecords, AnyBytesMakeAPrintableLine) {
  std::mt19937 random(1);
  const Datagram records[] = {TextDatagram(), ToDatagram(BuildStatusRecord(SomeState())),
                              ToDatagram(BuildHistogramRecord(SomeState()))};
  for (int round = 0; round < 3000; ++round) {
    Datagram datagram = records[random() % 3];
    for (unsigned change = random() % 8; change > 0; --change) {
      datagram[random() % datagram.size()] = static_cast<std::uint8_t>(random());
    }
    datagram.resize(random() % 4 == 0 ? random() % (datagram.size() + 2) : datagram.size());
    const Shown shown = Show(datagram);
    EXPECT_TRUE(IsPrintable(shown.line)) << shown.line;
    EXPECT_EQ(shown.json.find_first_of("\x1b\n\r"), std::string::npos) << shown.json;
  }
}

TEST(TelemetryCommand, PrintsALinePerRecordIntoAPipeAndEndsAfterItsCount) {
  ChildProcess telemetry({ProgramPath("kestrelctl"), "telemetry", "--count", "4"});
  ASSERT_TRUE(telemetry.WaitForLine("listening on 127.0.0.1:5000"));
  const UdpSocket daemon;
  for (const Datagram& datagram :
       {TextDatagram(), ToDatagram(BuildStatusRecord({})), ToDatagram(BuildHistogramRecord({})),
        Datagram{1, 2, 3}, ToDatagram(BuildStatusRecord({}))}) {
    ASSERT_TRUE(daemon.Send(datagram, {.host = "127.0.0.1", .port = 5000}));
  }
  EXPECT_EQ(telemetry.WaitForExit(), ExitedWith(0));
  const std::string sender = " 127.0.0.1:" + std::to_string(daemon.port()) + " ";
  EXPECT_EQ(CountLines(telemetry.Output(), sender), 4) << telemetry.Output();
  for (const std::string line :
       {"text@camera_detected=0,", "status@", "histogram@0 0 0", "unknown@3 bytes: 01 02 03"}) {
    const std::size_t at = line.find('@');
    EXPECT_EQ(CountLines(telemetry.Output(), line.substr(0, at) + sender + line.substr(at + 1)), 1);
  }
}

}  // namespace
}  // namespace kestrelbridge
