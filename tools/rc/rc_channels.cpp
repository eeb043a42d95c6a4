#include "tools/rc/rc_channels.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <optional>

#include "tools/common/foreign_text.h"
#include "tools/common/tool_error.h"

namespace kestrelbridge::tools {
namespace {

constexpr std::array kChannels = {
    RcChannel{kRcRecordSwitch, "record", "not 0: records, in photo mode takes a shot"},
    RcChannel{kRcModeSwitch, "mode", "not 0: swaps photo and video mode"},
    RcChannel{kRcImageModeSwitch, "image_mode", "exposure mode, +1 next, -1 previous"},
    RcChannel{kRcImageModeNext, "image_mode_next", "exposure mode, next"},
    RcChannel{kRcImageModePrev, "image_mode_prev", "exposure mode, previous"},
    RcChannel{kRcIsoSwitch, "iso", "ISO, +1 next, -1 previous"},
    RcChannel{kRcIsoNext, "iso_next", "ISO, next"},
    RcChannel{kRcIsoPrev, "iso_prev", "ISO, previous"},
    RcChannel{kRcShutterSwitch, "shutter", "exposure time, +1 next, -1 previous"},
    RcChannel{kRcShutterNext, "shutter_next", "exposure time, next"},
    RcChannel{kRcShutterPrev, "shutter_prev", "exposure time, previous"},
    RcChannel{kRcColorSwitch, "color", "colour profile, +1 next, -1 previous"},
    RcChannel{kRcColorNext, "color_next", "colour profile, next"},
    RcChannel{kRcColorPrev, "color_prev", "colour profile, previous"},
    RcChannel{kRcWhiteBalanceSwitch, "wb", "white balance, +1 next, -1 previous"},
    RcChannel{kRcWhiteBalanceNext, "wb_next", "white balance, next"},
    RcChannel{kRcWhiteBalancePrev, "wb_prev", "white balance, previous"},
    RcChannel{kRcEvSlider, "ev_slider", "-1 to +1: exposure compensation, while in force"},
    RcChannel{kRcEvSwitch, "ev", "exposure compensation, +1 next, -1 previous"},
    RcChannel{kRcEvNext, "ev_next", "exposure compensation, next"},
    RcChannel{kRcEvPrev, "ev_prev", "exposure compensation, previous"},
};
static_assert(std::ranges::is_sorted(kChannels, {}, &RcChannel::number));

std::optional<std::size_t> ParseChannel(std::string_view text) {
  const auto named = std::ranges::find(kChannels, text, &RcChannel::name);
  if (named != kChannels.end()) {
    return named->number;
  }
  std::size_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc{} || end != text.data() + text.size() || number >= kRcChannelCount) {
    return std::nullopt;
  }
  return number;
}

std::optional<double> ParseValue(const std::string& text) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  return text.empty() || end != text.c_str() + text.size() ? std::nullopt : std::optional(value);
}

}  // namespace

std::span<const RcChannel> RcChannels() { return kChannels; }

std::string RcChannelName(std::size_t number) {
  const auto channel = std::ranges::find(kChannels, number, &RcChannel::number);
  return channel == kChannels.end() ? std::to_string(number) : std::string(channel->name);
}

RcAssignment ParseRcAssignment(std::string_view text) {
  const std::size_t equals = text.find('=');
  if (equals != std::string_view::npos) {
    const auto channel = ParseChannel(text.substr(0, equals));
    const auto value = ParseValue(std::string(text.substr(equals + 1)));
    if (channel && value) {
      return {.channel = *channel, .value = *value};
    }
  }
  throw ToolError("\"" + PrintableText(text) +
                  "\" is no CHANNEL=VALUE, such as 139=1 or record=-1: channels are 0 to 185, or "
                  "the names that \"kestrelctl rc\" lists");
}

}  // namespace kestrelbridge::tools
