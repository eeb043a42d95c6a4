#include "program.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <optional>
#include <sstream>
#include <thread>

#include "tools/common/start_program.h"
#include "tools/common/tool_error.h"
#include "tools/common/udp_table.h"

namespace kestrelbridge::bench {
namespace {

constexpr std::chrono::seconds kPatience{10};
constexpr char kOutputPath[] = "/run/bench_subject.log";

std::string LastLineOfOutput() {
  std::ifstream output(kOutputPath);
  std::string last;
  for (std::string line; std::getline(output, line);) {
    last = line;
  }
  return last;
}

std::optional<tools::UdpTableRow> SocketAt(std::uint16_t port) {
  const auto table = tools::ReadUdpTable("/proc/net/udp");
  const auto row = std::ranges::find(table, port, &tools::UdpTableRow::port);
  return row == table.end() ? std::nullopt : std::optional(*row);
}

}  // namespace

std::uint32_t Loopback() { return htonl(INADDR_LOOPBACK); }

Cores ChooseCores() {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  sched_getaffinity(0, sizeof allowed, &allowed);
  std::vector<int> cores;
  for (int core = 0; core < CPU_SETSIZE; ++core) {
    if (CPU_ISSET(static_cast<std::size_t>(core), &allowed)) {
      cores.push_back(core);
    }
  }
  // The first core is where a machine's own chores tend to be.
  return {.subject = cores.back(), .load = cores.size() > 1 ? cores[cores.size() - 2] : cores[0]};
}

void PinToCore(int core) {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  CPU_SET(static_cast<std::size_t>(core), &cores);
  sched_setaffinity(0, sizeof cores, &cores);
}

Program::Program(const ProgramStart& start) : name_(start.command.at(0)) {
  const int output = open(kOutputPath, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
  pid_ = tools::StartProgram(
      {.command = start.command, .output = output, .error = output, .core = start.core});
  close(output);
}

Program::~Program() {
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

void Program::CheckAlive() const {
  siginfo_t end{};
  waitid(P_PID, static_cast<id_t>(pid_), &end, WEXITED | WNOHANG | WNOWAIT);
  if (end.si_pid != 0) {
    throw tools::ToolError(name_ + " ended while it was measured: " + LastLineOfOutput());
  }
}

std::chrono::nanoseconds Program::ProcessorTime() const {
  CheckAlive();
  clockid_t clock = 0;
  std::timespec time{};
  if (clock_getcpuclockid(pid_, &clock) != 0 || clock_gettime(clock, &time) != 0) {
    throw tools::ToolError("the kernel does not tell the processor time of " + name_);
  }
  return std::chrono::seconds{time.tv_sec} + std::chrono::nanoseconds{time.tv_nsec};
}

Memory Program::MemoryUse() const {
  Memory memory;
  std::ifstream rollup("/proc/" + std::to_string(pid_) + "/smaps_rollup");
  for (std::string line; std::getline(rollup, line);) {
    std::istringstream fields(line);
    std::string name;
    std::size_t kilobytes = 0;
    fields >> name >> kilobytes;
    if (name == "Pss_Anon:" || name == "Pss_File:") {
      memory.own_bytes += kilobytes * 1024;
    } else if (name == "Pss_Shmem:") {
      memory.shared_bytes += kilobytes * 1024;
    }
  }
  if (memory.own_bytes == 0) {
    throw tools::ToolError("the kernel does not say how much memory " + name_ + " uses");
  }
  return memory;
}

SocketFill LookAtSocket(std::uint16_t port) {
  const auto socket = SocketAt(port).value_or(tools::UdpTableRow{});
  return {.queued_bytes = socket.queued_bytes, .dropped = socket.drops};
}

void AwaitUdpPort(std::uint16_t port) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!SocketAt(port)) {
    if (std::chrono::steady_clock::now() > deadline) {
      throw tools::ToolError("nobody opened UDP port " + std::to_string(port));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds{10});
  }
}

}  // namespace kestrelbridge::bench
