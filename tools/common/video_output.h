// Where the video goes: a file, a pipe, or nowhere.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "tools/common/run_end.h"

namespace kestrelbridge::tools {

// One thread.
class VideoOutput {
 public:
  // A path, "-" for standard output, "" for nowhere. Throws ToolError when the file cannot be
  // opened, has something in it that may not be replaced, or is a terminal: video there is of no
  // use to anybody.
  explicit VideoOutput(const std::string& path, bool may_replace = false);
  VideoOutput(const VideoOutput&) = delete;
  VideoOutput& operator=(const VideoOutput&) = delete;
  ~VideoOutput();

  // Writes all of it. False when it is time to end, or the reader has closed the pipe. Throws
  // ToolError when it cannot be written, as on a full disk.
  [[nodiscard]] bool Write(std::span<const std::uint8_t> unit, RunEnd& end);

  // The last moment at which a file may report that it was not written. Throws ToolError.
  void Close();

  [[nodiscard]] int descriptor() const { return descriptor_; }  // -1: nowhere

 private:
  [[noreturn]] void Fail(const char* action, int error) const;

  std::string name_;
  int descriptor_ = -1;
};

}  // namespace kestrelbridge::tools
