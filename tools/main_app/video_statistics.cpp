#include "tools/main_app/video_statistics.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>

#include "base/run_paths.h"
#include "base/text_file.h"
#include "tools/common/json_text.h"
#include "tools/common/tool_error.h"

namespace kestrelbridge::tools {
namespace {

constexpr std::chrono::seconds kPeriod{1};
constexpr char kSizeUnknown[] = "size unknown";

unsigned long long Ull(std::uint64_t value) { return value; }

// As the daemon's status files have it; they are absent until it has seen a parameter set.
std::string PictureSize() {
  std::array<char, 12> width{};
  std::array<char, 12> height{};
  ReadTextFile(kVideoWidthPath, width);
  ReadTextFile(kVideoHeightPath, height);
  if (width[0] == '\0' || height[0] == '\0') {
    return kSizeUnknown;
  }
  return std::string(width.data()) + "x" + height.data();
}

// [1280,720], or null.
std::string JsonSize(const std::string& size) {
  const std::size_t x = size.find('x');
  if (size == kSizeUnknown || x == std::string::npos) {
    return "null";
  }
  return "[" + JsonValue(size.substr(0, x)) + "," + JsonValue(size.substr(x + 1)) + "]";
}

}  // namespace

void VideoStatistics::CountUnit(std::size_t length) {
  ++units_;
  bytes_ += length;
}

bool VideoStatistics::Report(const FrameBlockReader::Counters& ring) {
  const auto now = RunEnd::Clock::now();
  if (now - last_ < kPeriod) {
    return true;
  }
  const double elapsed_s = std::chrono::duration<double>(now - last_).count();
  const char* const format =
      json_ ? R"({%s,"seconds":%.3f,"frames_per_second":%.1f,"megabits_per_second":%.2f,)"
              R"("lost":%llu,"restarts":%llu,"size":%s})"
              "\n"
            : "%s%.0f s: %.1f frames/s, %.2f Mbit/s, lost %llu, restarts %llu, %s\n";
  const std::string size = PictureSize();
  std::fprintf(stream_, format, json_ ? JsonTime().c_str() : "",
               std::chrono::duration<double>(now - start_).count(),
               static_cast<double>(units_ - last_units_) / elapsed_s,
               static_cast<double>(bytes_ - last_bytes_) * 8 / elapsed_s / 1e6, Ull(ring.lost),
               Ull(ring.restarts), (json_ ? JsonSize(size) : size).c_str());
  last_ = now;
  last_units_ = units_;
  last_bytes_ = bytes_;
  if (std::fflush(stream_) == 0) {
    return true;
  }
  if (errno != EPIPE) {
    throw ToolError(std::string("cannot write statistics: ") + std::strerror(errno));
  }
  return false;
}

void VideoStatistics::PrintSummary(std::FILE* stream,
                                   const FrameBlockReader::Counters& ring) const {
  std::fprintf(stream, "units: %llu, bytes: %llu, lost: %llu, restarts: %llu\n", Ull(units_),
               Ull(bytes_), Ull(ring.lost), Ull(ring.restarts));
}

}  // namespace kestrelbridge::tools
