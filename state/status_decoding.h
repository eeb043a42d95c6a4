// What the camera says about itself, put into the state record.
#pragma once

#include <cstdint>
#include <span>

namespace kestrelbridge {

// Takes one command frame of the camera. A push of a known kind goes into the record as a whole; it
// overwrites the fields that it carries and leaves all others alone. A frame with a wrong check sum
// is reported and dropped, any other frame is ignored. Camera's receive thread.
void DecodeStatusFrame(std::span<const std::uint8_t> frame);

// The same for a frame whose length and check sums are known to be right, as the scanner's are.
// Camera's receive thread.
void DecodeSoundFrame(std::span<const std::uint8_t> frame);

}  // namespace kestrelbridge
