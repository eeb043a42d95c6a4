// Gathers the camera's command data into batches for the frame scanner.
#pragma once

#include <cstdint>
#include <span>

namespace kestrelbridge {

// Adds the payload of one command-data datagram. Once more than 500 bytes have gathered, the batch
// is scanned for command frames, each of which is decoded, and the next one starts empty: a frame
// cut by the end of a batch is lost with it. Camera's receive thread.
void GatherCommandData(std::span<const std::uint8_t> payload);

}  // namespace kestrelbridge
