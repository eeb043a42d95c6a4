// Real H.264 clips through the real programs: kestrelctl camera, kestrelbridge, kestrelctl video.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "end_to_end/daemon_bench.h"
#include "support/camera_datagrams.h"
#include "support/child_process.h"

namespace kestrelbridge {

// A folder that goes with its object.
class TemporaryFolder {
 public:
  TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder();
  std::string File(const std::string& name) const { return folder_ / name; }

 private:
  std::filesystem::path folder_;
};

Bytes ReadFile(const std::string& path);

// A clip with a constant bit rate: every access unit has nearly the same size.
struct ClipFormat {
  const char* name;
  int megabits_per_second;
  int units_per_second;
  int units;
};
inline std::ostream& operator<<(std::ostream& out, const ClipFormat& format) {
  return out << format.name;
}
// Has ffmpeg write the clip; throws when it cannot, which fails the test.
void MakeClip(const ClipFormat& format, const std::string& path);

// Check sums of the decoded pictures, in their order.
std::vector<std::string> PictureSums(const std::string& clip_path);

// What became of a sent unit on the way, as the simulated camera's journal tells it.
struct JournalUnit {
  std::size_t clip_unit = 0;
  std::size_t length = 0;
  std::vector<bool> lost;  // for each of its datagrams
};
std::vector<JournalUnit> ReadJournal(const std::string& path);

// The "key: number" lines at the end of a tool's output.
std::map<std::string, std::uint64_t> Summary(const ChildProcess& tool);

// The programs, with the options that every test gives them.
std::vector<std::string> CameraTool(const std::string& clip_path, const ClipFormat& format,
                                    const std::vector<std::string>& options = {},
                                    std::uint16_t port = kOtherCameraPort);
std::vector<std::string> VideoTool(const std::string& output_path,
                                   const std::vector<std::string>& options = {});

// Waits until the process has mapped the frame block, and so misses no unit.
bool WaitUntilWatching(const ChildProcess& video_tool);

}  // namespace kestrelbridge
