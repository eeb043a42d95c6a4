// Judges what the camera receives, byte by byte, with no leniency: the real camera drops a packet
// that is wrong anywhere. Pure functions.
#pragma once

#include <cstdint>
#include <span>

namespace kestrelbridge::tools {

enum class PacketType { kBad, kConnectionRequest, kKeepalive, kUnitAcknowledgement, kCommand };

struct CheckedPacket {
  PacketType type = PacketType::kBad;
  const char* fault = nullptr;            // what is wrong with a bad packet
  std::span<const std::uint8_t> frame{};  // of a keepalive or a command, inside the packet
};

[[nodiscard]] CheckedPacket CheckPacket(std::span<const std::uint8_t> packet);

}  // namespace kestrelbridge::tools
