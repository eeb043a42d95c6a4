#include "state/format.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>

namespace kestrelbridge {
namespace {

constexpr std::uint32_t kFractionFlag = 0x8000;  // in the low 16 bits: 1/N
constexpr float kMegabytesToGigabytes = 0.001F;

}  // namespace

void SetText(std::span<char> field, std::string_view word) {
  const std::size_t length = std::min(word.size(), field.size() - 1);
  std::ranges::copy(word.substr(0, length), field.begin());
  std::ranges::fill(field.subspan(length), '\0');
}

void FormatDuration(std::uint32_t seconds, std::span<char> field) {
  const std::uint32_t minutes = seconds / 60;
  std::snprintf(field.data(), field.size(), "%02u:%02u:%02u", minutes / 60, minutes % 60,
                seconds % 60);
}

void FormatShutter(std::uint32_t value, std::span<char> field) {
  const std::uint32_t low = value & 0xFFFF;
  const std::uint32_t decimals = value >> 16 & 0xFF;
  if (low <= 0xFF && decimals == 0) {
    std::snprintf(field.data(), field.size(), "%u\"", low);
  } else if (low <= 0xFF) {
    std::snprintf(field.data(), field.size(), "%u.%u\"", low, decimals);
  } else if (low >= kFractionFlag && decimals == 0) {
    std::snprintf(field.data(), field.size(), "1/%u", low - kFractionFlag);
  } else if (low >= kFractionFlag) {
    std::snprintf(field.data(), field.size(), "1/%u.%u", low - kFractionFlag, decimals);
  }
}

void FormatFreeSpace(std::uint32_t megabytes, std::span<char> field) {
  if (megabytes == 0) {
    SetText(field, "");
    return;
  }
  const float gigabytes = static_cast<float>(megabytes) * kMegabytesToGigabytes;
  std::snprintf(field.data(), field.size(), "%1.1fG", static_cast<double>(gigabytes));
}

void FormatAperture(std::uint16_t hundredths, std::span<char> field) {
  const double f_number = hundredths * 0.01;
  const bool whole = f_number == std::trunc(f_number);
  std::snprintf(field.data(), field.size(), whole ? "%1.0f" : "%1.1f", f_number);
}

}  // namespace kestrelbridge
