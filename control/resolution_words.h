// The words of the command "video_resolution".
#pragma once

#include <array>
#include <string_view>

namespace kestrelbridge {

// The words by which a picture size and rate are asked for: width, height, frames per second. The
// camera has a code for each size and each rate, but does not take every pair of them.
inline constexpr std::array<std::string_view, 41> kResolutionCommandWords = {
    "4096x2160@25",  "4096x2160@24",  "4000x3000@30", "4000x3000@25",  "4000x3000@24",
    "3840x2160@60",  "3840x2160@50",  "3840x2160@48", "3840x2160@30",  "3840x2160@25",
    "3840x2160@24",  "2720x2040@30",  "2720x2040@25", "2720x2040@24",  "2720x1530@60",
    "2720x1530@50",  "2720x1530@48",  "2720x1530@30", "2720x1530@25",  "2720x1530@24",
    "2704x1520@30",  "2704x1520@25",  "2704x1520@24", "1920x1080@240", "1920x1080@200",
    "1920x1080@120", "1920x1080@100", "1920x1080@60", "1920x1080@50",  "1920x1080@48",
    "1920x1080@30",  "1920x1080@25",  "1920x1080@24", "1280x720@240",  "1280x720@200",
    "1280x720@60",   "1280x720@50",   "1280x720@48",  "1280x720@30",   "1280x720@25",
    "1280x720@24"};

}  // namespace kestrelbridge
