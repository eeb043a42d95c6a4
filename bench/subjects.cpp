#include "subjects.h"

#include "tools/common/tool_error.h"

namespace kestrelbridge::bench {
namespace {

std::unique_ptr<Subject> StartAndAwait(const Setting& setting, std::vector<std::string> command) {
  auto subject = std::make_unique<Subject>();
  command[0] = setting.programs + "/" + command[0];
  subject->program = std::make_unique<Program>(
      ProgramStart{.command = std::move(command), .core = setting.cores.subject});
  subject->camera.AwaitPeer();
  return subject;
}

}  // namespace

std::unique_ptr<Subject> StartDaemon(const Setting& setting,
                                     const std::vector<std::string>& options) {
  std::vector<std::string> command = {"kestrelbridge", "--host=127.0.0.1",
                                      "--port=" + std::to_string(kCameraPort)};
  command.insert(command.end(), options.begin(), options.end());
  return StartAndAwait(setting, std::move(command));
}

std::unique_ptr<Subject> StartFloor(const Setting& setting, const std::string& job) {
  return StartAndAwait(setting, {"bench_floor", job, std::to_string(kCameraPort)});
}

std::unique_ptr<Subject> StartEcho(const Setting& setting, std::uint16_t receiver_port) {
  return StartAndAwait(setting, {"bench_floor", "forward", std::to_string(kCameraPort),
                                 std::to_string(receiver_port)});
}

UnitCounter::UnitCounter() {
  if (!ring_.Open()) {
    throw tools::ToolError("the program under test has made no ring");
  }
  last_seen_ = Newest();
}

std::uint64_t UnitCounter::Look() {
  const std::uint16_t newest = Newest();
  count_ += static_cast<std::uint16_t>(newest - last_seen_);
  last_seen_ = newest;
  return count_;
}

}  // namespace kestrelbridge::bench
