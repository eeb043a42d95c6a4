// What is seen of the live video: a line a second, for people or as JSON; a line at the end.
#pragma once

#include <cstdint>
#include <cstdio>

#include "kestrelbridge/frame_block.h"
#include "tools/common/run_end.h"

namespace kestrelbridge::tools {

// Prints to `stream`. One thread.
class VideoStatistics {
 public:
  VideoStatistics(std::FILE* stream, bool json) : stream_(stream), json_(json) {}

  // The first second begins.
  void Start() { start_ = last_ = RunEnd::Clock::now(); }

  void CountUnit(std::size_t length);

  // Prints what happened since the last line, when a second is over. False when the reader of the
  // stream is gone. Throws ToolError when the line cannot be written.
  bool Report(const FrameBlockReader::Counters& ring);

  [[nodiscard]] std::uint64_t units() const { return units_; }

  // The last line, for people and scripts.
  void PrintSummary(std::FILE* stream, const FrameBlockReader::Counters& ring) const;

 private:
  std::FILE* stream_;
  bool json_;
  RunEnd::Clock::time_point start_{};
  RunEnd::Clock::time_point last_{};
  std::uint64_t units_ = 0, bytes_ = 0;
  std::uint64_t last_units_ = 0, last_bytes_ = 0;  // at the last line
};

}  // namespace kestrelbridge::tools
