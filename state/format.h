// Numbers of the camera as the texts that telemetry reports. Each function writes into a text field
// of the record, cuts what does not fit and always leaves it terminated. Any thread.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace kestrelbridge {

// Copies a word into a text field.
void SetText(std::span<char> field, std::string_view word);

// Hours, minutes and seconds: 3725 s are 01:02:05. From 100 hours on the hours take the room that
// they need.
void FormatDuration(std::uint32_t seconds, std::span<char> field);

// Exposure time, 24 bits as the camera sends them:
//
//   bits  0-7   A
//   bits  8-15  B
//   bits 16-23  C, the digits after the decimal point, none when 0
//
//   B = 0          A.C seconds                       0x020003 is 3.2"
//   B >= 128       1/N.C with N = A + 256 (B - 128)  0x198001 is 1/1.25
//   anything else  means nothing, and leaves the field as it was
void FormatShutter(std::uint32_t value, std::span<char> field);

// Free space on the card in gigabytes: 59640 MB are 59.6G. Empty when there is none.
void FormatFreeSpace(std::uint32_t megabytes, std::span<char> field);

// f-number from hundredths: 280 is 2.8, 200 is 2.
void FormatAperture(std::uint16_t hundredths, std::span<char> field);

}  // namespace kestrelbridge
