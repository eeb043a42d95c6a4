// Video units that tell of themselves: every byte follows from the unit's number and its length.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace kestrelbridge::test {

inline constexpr std::size_t kNumberedUnitHead = 8;  // start code and number

inline std::vector<std::uint8_t> NumberedUnit(std::uint32_t number, std::size_t length = 64) {
  const std::uint8_t start_code[] = {0, 0, 0, 1};
  std::vector<std::uint8_t> unit(length < kNumberedUnitHead ? kNumberedUnitHead : length);
  std::memcpy(unit.data(), start_code, sizeof start_code);
  std::memcpy(&unit[4], &number, sizeof number);
  std::uint32_t word = number * 2654435761U ^ static_cast<std::uint32_t>(length);
  for (std::size_t i = kNumberedUnitHead; i < unit.size(); i += sizeof word) {
    word = word * 1664525U + 1013904223U;
    std::memcpy(&unit[i], &word, std::min(sizeof word, unit.size() - i));
  }
  return unit;
}

inline std::uint32_t NumberOf(std::span<const std::uint8_t> unit) {
  std::uint32_t number = 0;
  if (unit.size() >= kNumberedUnitHead) {
    std::memcpy(&number, &unit[4], sizeof number);
  }
  return number;
}

inline bool IsIntact(const std::vector<std::uint8_t>& unit) {
  return unit == NumberedUnit(NumberOf(unit), unit.size());
}

}  // namespace kestrelbridge::test
