#include "tools/common/video_output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "tools/common/tool_error.h"

namespace kestrelbridge::tools {

namespace {

// Earlier video. A pipe or a device has none.
bool HoldsSomething(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0;
}

}  // namespace

VideoOutput::VideoOutput(const std::string& path, bool may_replace) : name_(path) {
  if (path.empty()) {
    return;
  }
  if (path == "-") {
    name_ = "standard output";
    descriptor_ = STDOUT_FILENO;
  } else {
    if (!may_replace && HoldsSomething(path)) {
      throw ToolError(path + " exists, and has something in it: --force replaces it");
    }
    constexpr mode_t kFileMode = 0666;  // less what the user's mask takes away
    descriptor_ =
        open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY, kFileMode);
    if (descriptor_ == -1) {
      Fail("open", errno);
    }
  }
  if (isatty(descriptor_) == 1) {
    throw ToolError(name_ +
                    " is a terminal and no place for video: use --output FILE, --stats, or a pipe, "
                    "as kestrelctl watch does");
  }
}

VideoOutput::~VideoOutput() {
  if (descriptor_ > STDERR_FILENO) {
    close(descriptor_);
  }
}

bool VideoOutput::Write(std::span<const std::uint8_t> unit, RunEnd& end) {
  while (descriptor_ != -1 && !unit.empty()) {
    if (!end.WaitForRoom(descriptor_)) {
      return false;
    }
    // A pipe that has room takes so much without blocking, and so we never miss the end.
    const ssize_t written =
        write(descriptor_, unit.data(), std::min<std::size_t>(unit.size(), PIPE_BUF));
    if (written >= 0) {
      unit = unit.subspan(static_cast<std::size_t>(written));
    } else if (errno == EPIPE) {
      return false;
    } else if (errno != EINTR && errno != EAGAIN) {
      Fail("write to", errno);
    }
  }
  return true;
}

void VideoOutput::Close() {
  if (descriptor_ != -1 && close(std::exchange(descriptor_, -1)) != 0) {
    Fail("write to", errno);
  }
}

void VideoOutput::Fail(const char* action, int error) const {
  throw ToolError(std::string("cannot ") + action + " " + name_ + ": " + std::strerror(error));
}

}  // namespace kestrelbridge::tools
