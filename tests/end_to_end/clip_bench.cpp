#include "end_to_end/clip_bench.h"

#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace kestrelbridge {
namespace {

namespace fs = std::filesystem;

std::string RunFfmpeg(std::vector<std::string> options) {
  options.insert(options.begin(), {"ffmpeg", "-v", "error"});
  ChildProcess ffmpeg(options);
  const auto end = ffmpeg.WaitForExit();
  if (end == ExitedWith(127)) {
    throw std::runtime_error("these tests need the program ffmpeg: install it");
  }
  if (end != ExitedWith(0)) {
    throw std::runtime_error("ffmpeg failed: " + ffmpeg.Error());
  }
  return ffmpeg.Output();
}

// "-", or positions with commas between them.
std::vector<bool> ParsePositions(const std::string& text, std::size_t datagrams) {
  std::vector<bool> positions(datagrams);
  std::istringstream numbers(text == "-" ? "" : text);
  for (std::string number; std::getline(numbers, number, ',');) {
    positions.at(std::stoul(number)) = true;
  }
  return positions;
}

}  // namespace

TemporaryFolder::TemporaryFolder() {
  std::string name = fs::temp_directory_path() / "kestrelbridge-test-XXXXXX";
  if (mkdtemp(name.data()) == nullptr) {
    throw std::runtime_error("cannot make " + name);
  }
  folder_ = name;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

Bytes ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void MakeClip(const ClipFormat& format, const std::string& path) {
  const std::string rate = std::to_string(format.megabits_per_second) + "M";
  const int bits_per_unit = format.megabits_per_second * 1'000'000 / format.units_per_second;
  RunFfmpeg(
      {"-f", "lavfi", "-i", "testsrc2=size=640x360:rate=" + std::to_string(format.units_per_second),
       "-frames:v", std::to_string(format.units),
       // Noise, so that no two stretches of a unit are the same.
       "-vf", "noise=alls=20:allf=t", "-c:v", "libx264", "-preset", "ultrafast", "-tune",
       "zerolatency", "-g", "30", "-b:v", rate, "-minrate", rate, "-maxrate", rate, "-bufsize",
       std::to_string(bits_per_unit), "-x264-params", "nal-hrd=cbr", "-f", "h264", path});
}

std::vector<std::string> PictureSums(const std::string& clip_path) {
  std::istringstream lines(RunFfmpeg({"-i", clip_path, "-f", "framemd5", "-"}));
  std::vector<std::string> sums;
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with('#')) {
      sums.push_back(line.substr(line.rfind(',') + 1));
    }
  }
  return sums;
}

std::vector<JournalUnit> ReadJournal(const std::string& path) {
  std::vector<JournalUnit> units;
  std::ifstream lines(path);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with('#')) {
      continue;
    }
    std::istringstream columns(line);
    std::size_t number = 0;
    std::size_t datagrams = 0;
    std::string lost;
    JournalUnit unit;
    columns >> number >> unit.clip_unit >> unit.length >> datagrams >> lost;
    unit.lost = ParsePositions(lost, datagrams);
    units.push_back(std::move(unit));
  }
  return units;
}

std::map<std::string, std::uint64_t> Summary(const ChildProcess& tool) {
  std::map<std::string, std::uint64_t> summary;
  std::istringstream lines(tool.Output());
  for (std::string line; std::getline(lines, line);) {
    const std::size_t colon = line.find(": ");
    const std::size_t number = colon + 2;
    if (colon != std::string::npos &&
        line.find_first_not_of("0123456789", number) == std::string::npos) {
      summary[line.substr(0, colon)] = std::stoull(line.substr(number));
    }
  }
  return summary;
}

std::vector<std::string> CameraTool(const std::string& clip_path, const ClipFormat& format,
                                    const std::vector<std::string>& options, std::uint16_t port) {
  std::vector<std::string> command = {ProgramPath("kestrelctl"),
                                      "camera",
                                      "--listen",
                                      std::string(kCameraAddress) + ":" + std::to_string(port),
                                      "--clip",
                                      clip_path,
                                      "--fps",
                                      std::to_string(format.units_per_second)};
  command.insert(command.end(), options.begin(), options.end());
  return command;
}

std::vector<std::string> VideoTool(const std::string& output_path,
                                   const std::vector<std::string>& options) {
  std::vector<std::string> command = {ProgramPath("kestrelctl"), "video", "--output", output_path};
  command.insert(command.end(), options.begin(), options.end());
  return command;
}

bool WaitUntilWatching(const ChildProcess& video_tool) {
  return Eventually([&] {
    std::ifstream maps("/proc/" + std::to_string(video_tool.pid()) + "/maps");
    const std::string text{std::istreambuf_iterator<char>(maps), std::istreambuf_iterator<char>()};
    return text.find(kFrameBlockName) != std::string::npos;
  });
}

}  // namespace kestrelbridge
