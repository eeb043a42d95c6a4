// The files through which the daemon and its neighbours on the box find each other.
#pragma once

namespace kestrelbridge {

// Written once at start-up with the text "1": the box is one that the daemon supports.
inline constexpr char kBoardSupportedPath[] = "/run/kestrelbridge/board_supported";

// Written by the box's own set-up scripts, read once at start-up: the access point's interface.
inline constexpr char kAccessPointInterfacePath[] = "/run/kestrelbridge/ap.iface";

// Picture size of the live stream, decimal text without a newline. Absent from start-up until the
// first sequence parameter set has been seen.
inline constexpr char kVideoWidthPath[] = "/run/kestrelbridge/video_width";
inline constexpr char kVideoHeightPath[] = "/run/kestrelbridge/video_height";

// The daemon's counters, written anew every second (app/metrics.h).
inline constexpr char kMetricsPath[] = "/run/kestrelbridge/metrics.prom";

// Where kestrelshare answers every program: records of the telemetry, and commands.
inline constexpr char kShareTelemetryPath[] = "/run/kestrelbridge/telemetry";
inline constexpr char kShareControlPath[] = "/run/kestrelbridge/control";

// What kestrelshare counts.
inline constexpr char kShareMetricsPath[] = "/run/kestrelbridge/share.prom";

// The board's name, NUL-terminated by the firmware; absent on anything but such a board.
inline constexpr char kBoardModelPath[] = "/sys/firmware/devicetree/base/model";

}  // namespace kestrelbridge
