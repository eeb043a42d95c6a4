// The camera's packets, byte by byte, for both directions. Pure functions: no socket, no clock.
//
// Every datagram between the daemon and the camera opens with a transport wrapper; commands and
// status travel inside it as command frames. All numbers are little-endian.
//
//   transport wrapper                                 command frame
//   bytes   field                                     bytes   field
//   0-1     packet length, bit 15 set                 0       0x55
//   2-5     30 32 00 00                               1       length of the whole frame
//   6       kind                                      2       0x04
//   7       XOR of bytes 0-6                          3       CRC-8 of bytes 0-2
//   8-9     sequence echo A                           4       sender
//   10-11   camera's sequence, or its echo            5       receiver
//   12-33   as the packet kind wants it               6-7     frame sequence
//   34-     command frame (to the camera)             8       flags
//                                                     9-10    command set, command id
//   From the camera: payload from byte 20.            11-     payload
//                                                     last 2  CRC-16 of everything before
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace kestrelbridge {

// Transport wrapper.
inline constexpr std::size_t kWrapperKindOffset = 6;
inline constexpr std::size_t kWrapperCheckOffset = 7;
inline constexpr std::size_t kWrapperEchoAOffset = 8;
inline constexpr std::size_t kWrapperSequenceOffset = 10;
inline constexpr std::size_t kWrapperSequenceEnd = 12;  // shorter datagrams have no sequence
inline constexpr std::size_t kWrapperFrameLengthOffset = 32;
inline constexpr std::size_t kSentWrapperSize = 34;      // to the camera
inline constexpr std::size_t kReceivedWrapperSize = 20;  // from the camera

inline constexpr std::uint8_t kKindConnectionRequest = 0;
inline constexpr std::uint8_t kKindCommandData = 1;
inline constexpr std::uint8_t kKindVideo = 2;
inline constexpr std::uint8_t kKindCommand = 4;  // also the unit acknowledgement

// Command frame.
inline constexpr std::uint8_t kFrameStart = 0x55;
inline constexpr std::uint8_t kFrameFormat = 0x04;
inline constexpr std::size_t kFrameLengthOffset = 1;
inline constexpr std::size_t kFrameFormatOffset = 2;
inline constexpr std::size_t kFrameCrc8Offset = 3;
inline constexpr std::size_t kFrameSenderOffset = 4;
inline constexpr std::size_t kFrameReceiverOffset = 5;
inline constexpr std::size_t kFrameSequenceOffset = 6;
inline constexpr std::size_t kFrameFlagsOffset = 8;
inline constexpr std::size_t kFrameCommandSetOffset = 9;
inline constexpr std::size_t kFrameCommandIdOffset = 10;
inline constexpr std::size_t kFramePayloadOffset = 11;
inline constexpr std::size_t kFrameCrc16Size = 2;
inline constexpr std::size_t kFrameOverhead = kFramePayloadOffset + kFrameCrc16Size;
inline constexpr std::size_t kMaxFrameLength = 255;

// Whole packets that the daemon sends.
inline constexpr std::size_t kConnectionRequestSize = 48;
inline constexpr std::size_t kKeepaliveFrameSize = 15;
inline constexpr std::size_t kKeepaliveSize = kSentWrapperSize + kKeepaliveFrameSize;
inline constexpr std::size_t kUnitAcknowledgementSize = kSentWrapperSize;
inline constexpr std::size_t kCommandPacketSize = 1024;  // buffer; the longest packet has 289 bytes

using ConnectionRequest = std::array<std::uint8_t, kConnectionRequestSize>;
using Keepalive = std::array<std::uint8_t, kKeepaliveSize>;
using UnitAcknowledgement = std::array<std::uint8_t, kUnitAcknowledgementSize>;
using CommandPacket = std::array<std::uint8_t, kCommandPacketSize>;

// The wrapper check: XOR of bytes 0-6. Precondition: at least 7 bytes.
std::uint8_t WrapperCheck(std::span<const std::uint8_t> packet);

// Writes the sequence and the CRC-16 into a command frame of 2 to 255 bytes whose other bytes are
// in place.
void SealCommandFrame(std::span<std::uint8_t> frame, std::uint16_t frame_sequence);

// In the following, last_received is the sequence of the camera's latest datagram.

// Asks the camera for its stream; the same 48 bytes every time.
[[nodiscard]] ConnectionRequest BuildConnectionRequest();

// Tells the camera that the daemon is still there.
[[nodiscard]] Keepalive BuildKeepalive(std::uint16_t last_received, std::uint16_t frame_sequence);

// Tells the camera that a video unit arrived whole.
[[nodiscard]] UnitAcknowledgement BuildUnitAcknowledgement(std::uint16_t last_received);

// Wraps a sealed command frame of 2 to 255 bytes. Only the first kSentWrapperSize + frame.size()
// bytes of the result are to be sent.
[[nodiscard]] CommandPacket BuildCommandPacket(std::span<const std::uint8_t> frame,
                                               std::uint16_t last_received);

}  // namespace kestrelbridge
