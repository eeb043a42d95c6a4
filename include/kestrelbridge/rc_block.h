// The remote-control block: raw channel values in POSIX shared memory, from the process that reads
// the remote control to the daemon.
//
// This header is the one definition of the block's layout, for both sides. It depends on the C++17
// standard library alone and is free to be copied into your project.
//
//   The block "/shared_rc_raw", 1504 bytes. Numbers are in the host's byte order.
//
//   bytes       field             meaning
//   0-1487      channels          186 values, 64-bit IEEE 754; channel n lies at byte 8 n
//   1488-1489   -                 not read
//   1490-1491   slider enabled    16 bits, not 0: channel 171 sets the exposure compensation
//   1492-1503   -                 not read
//
// A switch is read by its sign alone: above 0 is position +1, below 0 is -1, anything else is 0. A
// change of position is what acts, and a button has only the way from 0 and back. The daemon looks
// every 20 ms: hold a position longer than that. The service has a block for the group
// kestrelbridge, mode 0660; a daemon started by hand creates one of mode 0600 when there is none.
// While the daemon runs, the zeroes of a block that another process has made anew are switches let
// go; those of a block that the daemon had to make itself, because the old one was gone, are
// nothing until somebody writes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kestrelbridge {

inline constexpr char kRcBlockName[] = "/shared_rc_raw";
inline constexpr std::size_t kRcBlockSize = 1504;
inline constexpr std::size_t kRcChannelCount = 186;
inline constexpr std::size_t kRcSliderEnabledOffset = 1490;

// The channels that the daemon reads. A switch steps on at +1 and back at -1; a button steps at
// either.
inline constexpr std::size_t kRcRecordSwitch = 139;  // record while not 0; in photo mode: one shot
inline constexpr std::size_t kRcModeSwitch = 140;    // swaps photo and video mode when not 0
inline constexpr std::size_t kRcImageModeSwitch = 153;
inline constexpr std::size_t kRcImageModeNext = 154;
inline constexpr std::size_t kRcImageModePrev = 155;
inline constexpr std::size_t kRcIsoSwitch = 156;
inline constexpr std::size_t kRcIsoNext = 157;
inline constexpr std::size_t kRcIsoPrev = 158;
inline constexpr std::size_t kRcShutterSwitch = 159;
inline constexpr std::size_t kRcShutterNext = 160;
inline constexpr std::size_t kRcShutterPrev = 161;
inline constexpr std::size_t kRcColorSwitch = 165;
inline constexpr std::size_t kRcColorNext = 166;
inline constexpr std::size_t kRcColorPrev = 167;
inline constexpr std::size_t kRcWhiteBalanceSwitch = 168;
inline constexpr std::size_t kRcWhiteBalanceNext = 169;
inline constexpr std::size_t kRcWhiteBalancePrev = 170;
inline constexpr std::size_t kRcEvSlider = 171;  // -1 to +1, from -3 EV to +3 EV
inline constexpr std::size_t kRcEvSwitch = 172;
inline constexpr std::size_t kRcEvNext = 173;
inline constexpr std::size_t kRcEvPrev = 174;

// Byte offset of channel 0 to 185 within the block.
constexpr std::size_t RcChannelOffset(std::size_t channel) { return channel * sizeof(double); }
static_assert(RcChannelOffset(kRcChannelCount) == 1488 && sizeof(double) == sizeof(std::uint64_t));

// The other process writes while we read, and the other way round: every field is accessed as a
// whole, so that nobody sees half of it. `block` is the mapping, kRcBlockSize bytes.
inline double LoadRcChannel(const std::uint8_t* block, std::size_t channel) {
  const std::uint64_t bits = __atomic_load_n(
      reinterpret_cast<const std::uint64_t*>(block + RcChannelOffset(channel)), __ATOMIC_RELAXED);
  double value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}
inline void StoreRcChannel(std::uint8_t* block, std::size_t channel, double value) {
  std::uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  __atomic_store_n(reinterpret_cast<std::uint64_t*>(block + RcChannelOffset(channel)), bits,
                   __ATOMIC_RELAXED);
}
inline std::uint16_t LoadRcSliderEnabled(const std::uint8_t* block) {
  return __atomic_load_n(reinterpret_cast<const std::uint16_t*>(block + kRcSliderEnabledOffset),
                         __ATOMIC_RELAXED);
}
inline void StoreRcSliderEnabled(std::uint8_t* block, std::uint16_t enabled) {
  __atomic_store_n(reinterpret_cast<std::uint16_t*>(block + kRcSliderEnabledOffset), enabled,
                   __ATOMIC_RELAXED);
}

}  // namespace kestrelbridge
