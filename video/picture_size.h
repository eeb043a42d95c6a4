// Follows the picture size of the live stream for the main application.
#pragma once

#include <cstdint>
#include <span>

namespace kestrelbridge {

// Takes the bytes that follow the NAL unit header of a sequence parameter set, up to the end of its
// unit. A size other than the last one is logged and written to the two status files; a parameter
// set that is cut short changes nothing. Camera's receive thread.
void FollowPictureSize(std::span<const std::uint8_t> parameter_set);

}  // namespace kestrelbridge
