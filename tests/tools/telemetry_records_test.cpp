// Telemetry taken apart and shown: the daemon's own records, and what anybody may send.
#include "tools/telemetry_records.h"

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "state/telemetry.h"
#include "tools/foreign_text.h"
#include "tools/host_port.h"
#include "tools/telemetry_lines.h"
#include "tools/telemetry_view.h"

namespace kestrelbridge {
namespace {

using namespace std::string_literals;
using Datagram = std::vector<std::uint8_t>;
using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

Datagram FromText(const std::string& text) { return {text.begin(), text.end()}; }

CameraState SomeState() {
  CameraState state;
  std::snprintf(state.camera_model, sizeof state.camera_model, "DJI Osmo Action");
  std::snprintf(state.shutter, sizeof state.shutter, "2.5\"");
  state.battery_level = 87;
  state.status_byte_0 = 10;
  state.status_byte_31 = 231;
  state.status_byte_2 = 12;
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

// The members' names, each once, or a failed test.
std::vector<std::string> MembersOf(const std::string& json) {
  EXPECT_TRUE(std::ranges::none_of(json, [](char c) {
    return static_cast<unsigned char>(c) < ' ';
  })) << json;
  const char* end = nullptr;
  const Json tree(cJSON_ParseWithOpts(json.c_str(), &end, 1), cJSON_Delete);
  EXPECT_TRUE(cJSON_IsObject(tree.get())) << json;
  std::vector<std::string> names;
  for (const cJSON* member = tree ? tree->child : nullptr; member; member = member->next) {
    EXPECT_EQ(std::ranges::count(names, member->string), 0) << member->string;
    names.emplace_back(member->string);
  }
  return names;
}

TEST(TelemetryRecords, TheTextIsTakenApartIntoItsItemsEachKeyOnce) {
  const Shown shown = Show(TextDatagram());
  ASSERT_EQ(shown.record.type, RecordType::kText);
  EXPECT_EQ(shown.record.items.size(), 28U);  // of 29; one key comes twice
  EXPECT_EQ(ItemValue(shown.record, "camera_model"), "DJI Osmo Action");
  EXPECT_EQ(ItemValue(shown.record, "battery_level"), "87");
  EXPECT_EQ(ItemValue(shown.record, "sd"), "");
  EXPECT_EQ(ItemValue(shown.record, "speed"), std::nullopt);
  EXPECT_EQ(MembersOf(shown.json).size(), 30U);
  EXPECT_NE(shown.json.find(R"(,"shutter":"2.5\"",)"), std::string::npos) << shown.json;
  EXPECT_TRUE(shown.line.starts_with("text 127.0.0.1:40000 camera_detected=0,")) << shown.line;
}

TEST(TelemetryRecords, StatusAndHistogramAreTheirNumbers) {
  const Shown status = Show(ToDatagram(BuildStatusRecord(SomeState())));
  EXPECT_EQ(status.json, R"({"type":"status","sender":"127.0.0.1:40000","status_byte_0":10,)"
                         R"("status_byte_31":231,"status_byte_2":12})");
  EXPECT_EQ(status.line, "status 127.0.0.1:40000 byte 0: 10, byte 31: 231, byte 2: 12");
  const Shown histogram = Show(ToDatagram(BuildHistogramRecord(SomeState())));
  EXPECT_TRUE(histogram.line.ends_with(" 244 248 252")) << histogram.line;
  EXPECT_TRUE(histogram.json.ends_with(",244,248,252]}")) << histogram.json;
  EXPECT_EQ(MembersOf(histogram.json).back(), "histogram");
}

TEST(TelemetryRecords, AnythingElseIsUnknownAndShownAsBytes) {
  Datagram long_status = ToDatagram(BuildStatusRecord({}));
  long_status.push_back(0);
  Datagram short_histogram = ToDatagram(BuildHistogramRecord({}));
  short_histogram.pop_back();
  const Datagram rows[] = {{},
                           {7},
                           {6},
                           {6, 0},
                           {6, 1},
                           {6, 2},
                           long_status,
                           short_histogram,
                           FromText("\x07iso=1"),
                           FromText("\x07iso=1,ev"),
                           FromText("\x07iso=1,,"),
                           FromText("\x07=1,"),
                           FromText("iso=1,"),
                           Datagram(65'507, 0xFF)};
  for (const Datagram& row : rows) {
    const Shown shown = Show(row);
    EXPECT_EQ(shown.record.type, RecordType::kUnknown) << shown.line;
    const std::string size = std::to_string(row.size());
    EXPECT_TRUE(shown.line.starts_with("unknown 127.0.0.1:40000 " + size + " bytes"));
    EXPECT_NE(shown.json.find("\"length\":" + size + ","), std::string::npos);
    EXPECT_EQ(MembersOf(shown.json).size(), 4U);
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

TEST(TelemetryRecords, AnyBytesMakeAPrintableLineAndValidJson) {
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
    // Names may look the same once what is no UTF-8 has been replaced.
    const Json tree(cJSON_Parse(shown.json.c_str()), cJSON_Delete);
    EXPECT_TRUE(cJSON_IsObject(tree.get())) << shown.json;
  }
}

TEST(ForeignText, OnlyWellFormedUtf8PassesIntoJson) {
  const struct {
    std::string text;
    std::string json;
  } rows[] = {
      {"", "\"\""},
      {"\xc3\xa4\xe2\x82\xac\xf0\x9f\x8e\xa5", "\"\xc3\xa4\xe2\x82\xac\xf0\x9f\x8e\xa5\""},
      {"\xc3", R"("\ufffd")"},                                // cut short
      {"\xc3(", R"("\ufffd(")"},                              // no continuation
      {"\xa4", R"("\ufffd")"},                                // continuation of nothing
      {"\xc0\xaf", R"("\ufffd\ufffd")"},                      // longer than need be
      {"\xed\xa0\x80", R"("\ufffd\ufffd\ufffd")"},            // half of a surrogate pair
      {"\xf4\x90\x80\x80", R"("\ufffd\ufffd\ufffd\ufffd")"},  // past the last code point
      {"\xff", R"("\ufffd")"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(JsonString(row.text), row.json);
  }
}

}  // namespace
}  // namespace kestrelbridge
