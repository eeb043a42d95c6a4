// Large socket buffers.
#pragma once

namespace kestrelbridge {

// Room for bursts of the video stream while the receiver does not get the processor.
inline constexpr int kSocketBufferBytes = 10'000'000;

// Ask the kernel for buffers of that size. False when it refuses; where it only gives less than
// that, as to a user without rights it does, nothing is said.
bool RequestReceiveBuffer(int socket);
bool RequestSendBuffer(int socket);

}  // namespace kestrelbridge
