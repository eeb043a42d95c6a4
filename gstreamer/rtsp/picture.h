// Whether there is a picture to show, and the pipeline that shows it.
#pragma once

#include <gst/gst.h>

#include <string>

namespace kestrelbridge::rtsp {

// The pipeline for all viewers, as gst_parse_launch reads it. It fails when no picture comes for
// three seconds.
[[nodiscard]] std::string PictureLaunch();

// Once there has been a picture: the viewers stay when the camera leaves or the daemon restarts.
void WaitForEver(GstElement* pipeline);

// Throws ToolError that names the package of a GStreamer element that is missing.
void ExpectElements();

// Waits, two seconds at most, for the camera's next unit. Empty when one came, else why none did,
// for the log. Any thread.
[[nodiscard]] std::string WhyNoPicture();

}  // namespace kestrelbridge::rtsp
