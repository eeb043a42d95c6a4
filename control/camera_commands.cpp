#include "control/camera_commands.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <optional>
#include <span>
#include <string_view>
#include <system_error>

#include "base/byte_order.h"
#include "base/log.h"
#include "camera/command_frame_sender.h"
#include "camera/packet_format.h"
#include "state/camera_state.h"
#include "state/vocabulary.h"

namespace kestrelbridge {
namespace {

constexpr std::size_t kLongestCommand = 18;
constexpr std::uint8_t kCommandFlags = 0x40;

// With the first and third byte the same in every frame, the length decides.
constexpr std::uint8_t HeaderCrc8(std::size_t frame_length) {
  switch (frame_length) {
    case 13:
      return 0x33;
    case 14:
      return 0x66;
    case 15:
      return 0xA2;
    case 17:
      return 0x92;
    case 18:
      return 0xC7;
    default:
      return 0;
  }
}

// A command frame without its sequence and CRC-16, which the frame sender writes. Byte 1 says how
// many of the bytes belong to it.
struct Command {
  std::array<std::uint8_t, kLongestCommand> bytes{};

  // Arguments that are not given are zero. A wrong header does not compile.
  consteval Command(std::initializer_list<std::uint8_t> frame) {
    std::ranges::copy(frame, bytes.begin());
    const std::size_t length = bytes[kFrameLengthOffset];
    if (length < kFrameOverhead || length > kLongestCommand ||
        frame.size() + kFrameCrc16Size > length || bytes[0] != kFrameStart ||
        bytes[kFrameFormatOffset] != kFrameFormat ||
        bytes[kFrameCrc8Offset] != HeaderCrc8(length) ||
        bytes[kFrameFlagsOffset] != kCommandFlags) {
      throw "malformed command";  // only the compiler ever comes here
    }
  }
};

// clang-format off
//                              start len   fmt   crc8  from  to    seq.  flags set   id    args
constexpr Command kRecording    {0x55, 0x0E, 0x04, 0x66, 0x02, 0x01, 0, 0, 0x40, 0x02, 0x02};
constexpr Command kShot         {0x55, 0x0E, 0x04, 0x66, 0x02, 0x01, 0, 0, 0x40, 0x02, 0x01, 0x01};
constexpr Command kMode         {0x55, 0x0E, 0x04, 0x66, 0x09, 0x01, 0, 0, 0x40, 0x02, 0x10};
constexpr Command kExposureMode {0x55, 0x0F, 0x04, 0xA2, 0x02, 0x01, 0, 0, 0x40, 0x02, 0x1E};
constexpr Command kShutter      {0x55, 0x11, 0x04, 0x92, 0x02, 0x01, 0, 0, 0x40, 0x02, 0x28, 0x01};
constexpr Command kSensitivity  {0x55, 0x0E, 0x04, 0x66, 0x02, 0x01, 0, 0, 0x40, 0x02, 0x2A};
constexpr Command kCompensation {0x55, 0x0E, 0x04, 0x66, 0x02, 0x01, 0, 0, 0x40, 0x02, 0x2E};
constexpr Command kBalance      {0x55, 0x0F, 0x04, 0xA2, 0x02, 0x01, 0, 0, 0x40, 0x02, 0x2C};
constexpr Command kColor        {0x55, 0x0E, 0x04, 0x66, 0x02, 0x01, 0, 0, 0x40, 0x02, 0x42};
constexpr Command kVideoFormat  {0x55, 0x12, 0x04, 0xC7, 0x02, 0x01, 0, 0, 0x40, 0x02, 0x18};
constexpr Command kVideoFormat2 {0x55, 0x0F, 0x04, 0xA2, 0x02, 0x01, 0, 0, 0x40, 0x02, 0xAF};
constexpr Command kAspect       {0x55, 0x0F, 0x04, 0xA2, 0x02, 0x01, 0, 0, 0x40, 0x02, 0x12};
constexpr Command kPhotoFormat  {0x55, 0x0E, 0x04, 0x66, 0x02, 0x01, 0, 0, 0x40, 0x02, 0x16};
constexpr Command kFlicker      {0x55, 0x0E, 0x04, 0x66, 0x02, 0x01, 0, 0, 0x40, 0x02, 0x46};
constexpr Command kStandard     {0x55, 0x0E, 0x04, 0x66, 0x02, 0x01, 0, 0, 0x40, 0x02, 0x66};
constexpr Command kWifiBand     {0x55, 0x0E, 0x04, 0x66, 0x02, 0x07, 0, 0, 0x40, 0x07, 0x10};
constexpr Command kWifiBand2    {0x55, 0x0D, 0x04, 0x33, 0x02, 0x07, 0, 0, 0x40, 0x07, 0x15};
constexpr Command kReset        {0x55, 0x0E, 0x04, 0x66, 0x02, 0x01, 0, 0, 0x40, 0x02, 0x78};
constexpr Command kPower        {0x55, 0x0E, 0x04, 0x66, 0x02, 0x09, 0, 0, 0x40, 0x09, 0x51};
constexpr Command kHistogram    {0x55, 0x0E, 0x04, 0x66, 0x02, 0x01, 0, 0, 0x40, 0x02, 0x60};
constexpr Command kFormatCard   {0x55, 0x0D, 0x04, 0x33, 0x02, 0x01, 0, 0, 0x40, 0x02, 0x72};
// clang-format on

constexpr std::size_t kFirstArgument = kFramePayloadOffset;
constexpr std::size_t kSecondArgument = kFramePayloadOffset + 1;

void Send(Command command) {
  SendCameraFrame(std::span(command.bytes).first(command.bytes[kFrameLengthOffset]));
}

void SendByte(Command command, std::size_t offset, std::uint8_t byte) {
  command.bytes[offset] = byte;
  Send(command);
}

void SendPair(Command command, std::uint8_t first, std::uint8_t second) {
  command.bytes[kFirstArgument] = first;
  SendByte(command, kSecondArgument, second);
}

// Sends the code of a setting's word, or nothing when there is none.
void SendCode(const Command& command, std::optional<std::uint8_t> code,
              std::size_t offset = kFirstArgument) {
  if (code) {
    SendByte(command, offset, *code);
  }
}

constexpr char kBlanks[] = " \t\n\v\f\r";  // that may stand before a number

// Leading digits count, a text without any gives 0, what is too large for an int the largest.
int ParseInteger(const char* text) {
  return static_cast<int>(std::clamp<long long>(std::strtoll(text, nullptr, 10), INT_MIN, INT_MAX));
}

// Decimal numbers only: strtod would take hexadecimal ones, infinities and NaN, too. A text without
// a number gives 0.
double ParseDecimal(const char* text) {
  const char* at = text + std::strspn(text, kBlanks);
  at += *at == '-' || *at == '+' ? 1 : 0;
  const bool is_hexadecimal = at[0] == '0' && (at[1] == 'x' || at[1] == 'X');
  const bool is_decimal = std::strchr("0123456789.", *at) != nullptr && !is_hexadecimal;
  return is_decimal ? std::strtod(text, nullptr) : 0;
}

// Settings that are commanded only: the camera never reports them.
constexpr std::array kPowerWords = {
    SettingWord{1, {}, "sleep"},
    SettingWord{2, {}, "wakeup"},
    SettingWord{3, {}, "restart"},
    SettingWord{4, {}, "shutdown"},
};
constexpr Setting kPowerState = {kPowerWords, {}, std::nullopt};
constexpr std::array kHistogramWords = {
    SettingWord{0, {}, "0"},
    SettingWord{1, {}, "1"},
};
constexpr Setting kHistogramState = {kHistogramWords, {}, std::nullopt};

constexpr std::uint8_t kBand5Point8GHz = 1;
constexpr std::uint8_t kBand2Point4GHz = 0;

// What the camera's own app sends beside each white balance that is not "custom", by code.
constexpr std::array<std::uint8_t, 6> kPresetTemperatures = {0x44, 0x30, 0x40, 0, 0x44, 0x19};

// The coldest temperature that the camera takes is 2000 K; what rounds to it passes, too.
constexpr float kLowestTemperatureK = 1901;

// Hundreds of kelvin; the camera has a byte for it, so high temperatures wrap: at what makes a
// whole round of the byte.
constexpr int kTemperatureRoundK = 256 * 100;

// A temperature as a text gives it, however many digits that has.
struct Temperature {
  float kelvin = 0;             // infinite beyond the largest float
  int kelvin_in_its_round = 0;  // modulo kTemperatureRoundK, without the sign
};

// Leading digits count, behind blanks and a sign; a text without any gives 0.
Temperature ParseTemperature(const char* text) {
  const char* at = text + std::strspn(text, kBlanks);
  const bool is_negative = *at == '-';
  at += *at == '-' || *at == '+' ? 1 : 0;
  const std::string_view digits(at, std::strspn(at, "0123456789"));
  Temperature temperature;
  const auto read = std::from_chars(digits.begin(), digits.end(), temperature.kelvin);
  if (read.ec == std::errc::result_out_of_range) {
    temperature.kelvin = std::numeric_limits<float>::infinity();
  }
  if (is_negative) {
    temperature.kelvin = -temperature.kelvin;
  }
  for (const char digit : digits) {
    temperature.kelvin_in_its_round =
        (temperature.kelvin_in_its_round * 10 + (digit - '0')) % kTemperatureRoundK;
  }
  return temperature;
}

// Precondition: at least kLowestTemperatureK.
std::uint8_t EncodeTemperature(const Temperature& temperature) {
  constexpr int kLowestStepK = 2000;
  constexpr int kLowestStep = 20;
  const int above = temperature.kelvin < kLowestStepK
                        ? 0
                        : temperature.kelvin_in_its_round + kTemperatureRoundK - kLowestStepK;
  return static_cast<std::uint8_t>(above / 100 + kLowestStep);
}

void SetCustomWhiteBalance(std::uint8_t code, const char* text) {
  const Temperature temperature = ParseTemperature(text);
  UpdateCameraState([&](CameraState& state) { state.wb_temp_set = temperature.kelvin; });
  Log("Camera set WB temperature %s\n", text);
  if (temperature.kelvin >= kLowestTemperatureK) {
    SendPair(kBalance, code, EncodeTemperature(temperature));
  }
}

}  // namespace

void SetRecording(bool start) {
  Log("%s\n", start ? "Record start" : "Record stop");
  SendByte(kRecording, kFirstArgument, start ? 1 : 0);
}

void TakeShot() {
  Log("Camera shot\n");
  Send(kShot);
}

void SetCameraMode(const char* mode) {
  if (const auto code = EncodeWord(kCameraMode, mode)) {
    Log("Camera set mode %s\n", mode);
    SendCode(kMode, code);
  }
}

void SetVideoMode(const char* mode) {
  Log("Camera set video mode %s\n", mode);
  SendCode(kExposureMode, EncodeWord(kImageMode, mode));
}

void SetShutter(const char* shutter) {
  Log("Camera set shutter %s\n", shutter);
  const std::uint32_t value = EncodeShutter(shutter);
  Command command = kShutter;  // its first argument is constant
  StoreLe16(command.bytes, kSecondArgument, static_cast<std::uint16_t>(value & 0xFFFF));
  SendByte(command, kSecondArgument + 2, static_cast<std::uint8_t>(value >> 16));
}

void SetIso(const char* iso) {
  const int number = ParseInteger(iso);
  Log("Camera set iso %d\n", number);
  SendCode(kSensitivity, EncodeIso(number));
}

void SetEv(const char* ev) {
  const double number = ParseDecimal(ev);
  Log("Camera set EV %1.1f\n", number);
  SendCode(kCompensation, EncodeEv(number));
}

void SetWhiteBalance(const char* mode, const char* temperature) {
  Log("Camera set WB %s\n", mode);
  const auto code = EncodeWord(kWhiteBalance, mode);
  if (!code) {
    return;
  }
  if (*code < kPresetTemperatures.size()) {
    SendPair(kBalance, *code, kPresetTemperatures[*code]);
  } else if (temperature != nullptr) {
    SetCustomWhiteBalance(*code, temperature);
  }
}

void SetColor(const char* color) {
  Log("Set color %s\n", color);
  SendCode(kColor, EncodeWord(kColorMode, color));
}

void SetVideoResolution(int width, int height, int frames_per_second) {
  Log("Camera set video resolution %dx%d@%d\n", width, height, frames_per_second);
  const std::uint8_t resolution = EncodeResolution(width, height);
  const std::uint8_t framerate = EncodeFramerate(frames_per_second);
  SendPair(kVideoFormat, resolution, framerate);
  SendPair(kVideoFormat2, resolution, framerate);
}

void SetAspectRatio(const char* aspect) {
  Log("Camera set image aspect ratio %s\n", aspect);
  SendCode(kAspect, EncodeWord(kAspectRatio, aspect), kSecondArgument);
}

void SetShotMode(const char* mode) {
  Log("Camera set shot mode %s\n", mode);
  SendCode(kPhotoFormat, EncodeWord(kShotMode, mode));
}

void SetAntiFlicker(const char* mode) {
  Log("Camera set anti-flicker %s\n", mode);
  SendCode(kFlicker, EncodeWord(kAntiFlicker, mode));
}

void SetVideoStandard(const char* standard) {
  Log("Camera set video standard %s\n", standard);
  SendCode(kStandard, EncodeWord(kVideoStandard, standard));
}

void SetWifiMode(const char* band) {
  Log("Set Osmo Wi-Fi mode to %s\n", band);
  const bool high = std::string_view(band) == "5.8";
  SendByte(kWifiBand, kFirstArgument, high ? kBand5Point8GHz : kBand2Point4GHz);
  Send(kWifiBand2);
}

void ResetCamera() { Send(kReset); }

void SetPower(const char* state) { SendCode(kPower, EncodeWord(kPowerState, state)); }

void SetHistogram(const char* onoff) { SendCode(kHistogram, EncodeWord(kHistogramState, onoff)); }

void FormatSdCard(const char* target) {
  if (std::string_view(target) == "sd") {
    Log("Format microSD card\n");
    Send(kFormatCard);
  }
}

}  // namespace kestrelbridge
