// Little-endian loads and stores: the one place that assembles numbers from bytes.
//
// The camera's wire, the telemetry and the shared-memory blocks are all little-endian. Nothing in
// this project lays a struct over received bytes; everything goes through these functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace kestrelbridge {

// Precondition of all of them: offset + width <= bytes.size(). Callers check lengths first.

constexpr std::uint16_t LoadLe16(std::span<const std::uint8_t> bytes, std::size_t offset) {
  return static_cast<std::uint16_t>(bytes[offset] | (bytes[offset + 1] << 8));
}

constexpr std::uint32_t LoadLe24(std::span<const std::uint8_t> bytes, std::size_t offset) {
  return LoadLe16(bytes, offset) | (std::uint32_t{bytes[offset + 2]} << 16);
}

constexpr std::uint32_t LoadLe32(std::span<const std::uint8_t> bytes, std::size_t offset) {
  return LoadLe24(bytes, offset) | (std::uint32_t{bytes[offset + 3]} << 24);
}

constexpr void StoreLe16(std::span<std::uint8_t> bytes, std::size_t offset, std::uint16_t value) {
  bytes[offset] = static_cast<std::uint8_t>(value & 0xFF);
  bytes[offset + 1] = static_cast<std::uint8_t>(value >> 8);
}

constexpr void StoreLe32(std::span<std::uint8_t> bytes, std::size_t offset, std::uint32_t value) {
  StoreLe16(bytes, offset, static_cast<std::uint16_t>(value & 0xFFFF));
  StoreLe16(bytes, offset + 2, static_cast<std::uint16_t>(value >> 16));
}

}  // namespace kestrelbridge
