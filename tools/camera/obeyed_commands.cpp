#include "tools/camera/obeyed_commands.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string_view>

#include "base/byte_order.h"
#include "state/format.h"
#include "state/vocabulary.h"
#include "tools/common/foreign_text.h"

// The expected bytes are written down here once more, instead of being taken from the daemon's
// commands: what the daemon gets wrong must be wrong here.

namespace kestrelbridge::tools {
namespace {

using Payload = std::span<const std::uint8_t>;
using Words = std::optional<std::string>;

constexpr std::uint8_t kCommandFlags = 0x40;

struct Order {
  Payload payload;
  const CameraModel& start;
  SteadyTime now;
  CameraModel& model;
};

struct CommandRow {
  std::uint8_t sender;
  std::uint8_t receiver;
  std::uint8_t command_set;
  std::uint8_t command_id;
  std::size_t payload_length;
  std::string_view name;
  // Changes the model and returns the words after the name; nothing when the camera does not have
  // a code of the payload, and then the model is as it was.
  Words (*apply)(const Order& order);
};

// The word for a code that the camera has.
Words WordOf(const Setting& setting, std::uint8_t code) {
  const auto row = std::ranges::find(setting.words, code, &SettingWord::code);
  return row == setting.words.end() ? std::nullopt : Words(row->reported);
}

template <std::size_t size>
struct Name {
  // Not explicit: a literal as a template argument.
  constexpr Name(const char (&literal)[size]) { std::ranges::copy(literal, text); }
  char text[size]{};
};

// The payload's byte at `offset` becomes the field's code; bytes around it don't matter.
template <Name field, std::size_t offset = 0>
Words Code(const Order& order) {
  Words word = WordOf(*FindField(field.text)->setting, order.payload[offset]);
  if (word) {
    Set(order.model, field.text, order.payload[offset]);
  }
  return word;
}

// One of a list of things to say, by the payload's first byte; nothing changes.
Words OneOf(const Order& order, std::span<const std::string_view> words) {
  const std::size_t code = order.payload[0];
  return code < words.size() && !words[code].empty() ? Words(words[code]) : std::nullopt;
}

Words Recording(const Order& order) {
  constexpr std::string_view kWords[] = {"stop", "start"};
  Words word = OneOf(order, kWords);
  if (!word) {
    return word;
  }
  if (order.payload[0] == 0) {
    StopRecording(order.model);
  } else if (Get(order.model, "rec_time_left") == 0) {
    return "start, but the card is full";
  } else {
    StartRecording(order.model, order.now);
  }
  return word;
}

Words Shot(const Order& order) {
  if (order.payload[0] != 1) {
    return std::nullopt;
  }
  return PutShotOnCard(order.model) ? "" : "but the card is full";
}

Words ImageMode(const Order& order) {
  Words word = WordOf(kImageMode, order.payload[0]);
  if (word) {
    SetImageModeCode(order.model, order.payload[0]);
  }
  return word;
}

Words Shutter(const Order& order) {
  const std::uint32_t value = LoadLe24(order.payload, 1);
  const auto known = std::ranges::find(kShutterWords, value, EncodeShutter);
  if (order.payload[0] != 1 || known == kShutterWords.end()) {
    return std::nullopt;
  }
  SetShutterValue(order.model, value);
  return Words(*known);
}

Words Iso(const Order& order) {
  Words word = WordOf(kIso, order.payload[0]);
  if (word) {
    SetIsoCode(order.model, order.payload[0]);
  }
  return word;
}

// Each mode comes with a temperature, presets with their own.
Words WhiteBalance(const Order& order) {
  Words word = Code<"wb">(order);
  if (!word) {
    return word;
  }
  Set(order.model, "wb_temp", order.payload[1]);
  return *word + ", " + std::to_string(order.payload[1] * 100) + " K";
}

// Comes twice, in two frames with the same two codes in front.
Words VideoSize(const Order& order) {
  const Words resolution = WordOf(kResolution, order.payload[0]);
  const Words framerate = WordOf(kFramerate, order.payload[1]);
  if (!resolution || !framerate) {
    return std::nullopt;
  }
  Set(order.model, "resolution", order.payload[0]);
  Set(order.model, "framerate", order.payload[1]);
  return *resolution + "@" + *framerate;
}

Words WifiBand(const Order& order) {
  constexpr std::string_view kWords[] = {"2.4 GHz", "5.8 GHz"};
  return OneOf(order, kWords);
}

Words WifiRestart(const Order& /*order*/) { return ""; }

Words Reset(const Order& order) {
  if (order.payload[0] != 0) {
    return std::nullopt;
  }
  order.model = order.start;
  return "";
}

Words Power(const Order& order) {
  constexpr std::string_view kWords[] = {"", "sleep", "wakeup", "restart", "shutdown"};
  return OneOf(order, kWords);
}

Words HistogramSwitch(const Order& order) {
  constexpr std::string_view kWords[] = {"off", "on"};
  Words word = OneOf(order, kWords);
  if (word) {
    order.model.histogram_on = order.payload[0] == 1;
  }
  return word;
}

Words Format(const Order& order) {
  FormatCard(order.model, order.start);
  return "";
}

// Columns: sender, receiver, command set, command id, payload length, name, what it does.
// clang-format off
constexpr CommandRow kCommands[] = {
    {0x02, 0x01, 0x02, 0x01, 1, "shot",                      Shot},
    {0x02, 0x01, 0x02, 0x02, 1, "recording",                 Recording},
    {0x09, 0x01, 0x02, 0x10, 1, "mode",                      Code<"camera_mode">},
    {0x02, 0x01, 0x02, 0x12, 2, "aspect ratio",              Code<"ratio", 1>},
    {0x02, 0x01, 0x02, 0x16, 1, "shot mode",                 Code<"shot_mode">},
    {0x02, 0x01, 0x02, 0x18, 5, "video size",                VideoSize},
    {0x02, 0x01, 0x02, 0x1E, 2, "exposure mode",             ImageMode},
    {0x02, 0x01, 0x02, 0x28, 4, "shutter",                   Shutter},
    {0x02, 0x01, 0x02, 0x2A, 1, "ISO",                       Iso},
    {0x02, 0x01, 0x02, 0x2C, 2, "white balance",             WhiteBalance},
    {0x02, 0x01, 0x02, 0x2E, 1, "EV",                        Code<"ev">},
    {0x02, 0x01, 0x02, 0x42, 1, "color",                     Code<"color_mode">},
    {0x02, 0x01, 0x02, 0x46, 1, "anti-flicker",              Code<"antiflicker">},
    {0x02, 0x01, 0x02, 0x60, 1, "histogram",                 HistogramSwitch},
    {0x02, 0x01, 0x02, 0x66, 1, "video standard",            Code<"video_std">},
    {0x02, 0x01, 0x02, 0x72, 0, "format the card",           Format},
    {0x02, 0x01, 0x02, 0x78, 1, "reset",                     Reset},
    {0x02, 0x01, 0x02, 0xAF, 2, "video size, second frame",  VideoSize},
    {0x02, 0x07, 0x07, 0x10, 1, "Wi-Fi band",                WifiBand},
    {0x02, 0x07, 0x07, 0x15, 0, "Wi-Fi restart",             WifiRestart},
    {0x02, 0x09, 0x09, 0x51, 1, "power",                     Power},
};
// clang-format on

Payload PayloadOf(std::span<const std::uint8_t> frame) {
  return frame.subspan(kFramePayloadOffset, frame.size() - kFrameOverhead);
}

bool IsFor(std::span<const std::uint8_t> frame, const CommandRow& row) {
  return frame[kFrameSenderOffset] == row.sender && frame[kFrameReceiverOffset] == row.receiver &&
         frame[kFrameFlagsOffset] == kCommandFlags &&
         frame[kFrameCommandSetOffset] == row.command_set &&
         frame[kFrameCommandIdOffset] == row.command_id &&
         PayloadOf(frame).size() == row.payload_length;
}

}  // namespace

std::string ObeyCommand(std::span<const std::uint8_t> frame, const CameraModel& start,
                        SteadyTime now, CameraModel& model) {
  const auto row =
      std::ranges::find_if(kCommands, [frame](auto& known) { return IsFor(frame, known); });
  if (row == std::end(kCommands)) {
    return "unknown, ignored:" + HexText(frame, " ", kUpperHex);
  }
  std::string line(row->name);
  const Payload payload = PayloadOf(frame);
  const Words words = row->apply({payload, start, now, model});
  if (!words) {
    return line +
           ", a code that the camera does not have, ignored:" + HexText(payload, " ", kUpperHex);
  }
  return words->empty() ? line : line + " " + *words;
}

}  // namespace kestrelbridge::tools
