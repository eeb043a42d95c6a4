#include "program.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <limits>
#include <sstream>
#include <thread>

#include "tools/common/tool_error.h"

namespace kestrelbridge::bench {
namespace {

constexpr std::chrono::seconds kPatience{10};
constexpr char kOutputPath[] = "/run/bench_subject.log";

// Runs in the child, between fork and exec: system calls only.
[[noreturn]] void Execute(char* const* arguments, int core) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (core >= 0) {
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(static_cast<std::size_t>(core), &cores);
    sched_setaffinity(0, sizeof cores, &cores);
  }
  const int input = open("/dev/null", O_RDONLY);
  const int output = open(kOutputPath, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
  dup2(input, STDIN_FILENO);
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  close_range(3, UINT_MAX, CLOSE_RANGE_CLOEXEC);
  execvp(arguments[0], arguments);
  _exit(127);
}

std::string LastLineOfOutput() {
  std::ifstream output(kOutputPath);
  std::string last;
  for (std::string line; std::getline(output, line);) {
    last = line;
  }
  return last;
}

// The line of /proc/net/udp for that port, empty when nobody has bound it: " 123: 0100007F:2332
// ..."
std::string SocketLine(std::uint16_t port) {
  constexpr std::size_t kAddressLength = 8;
  std::ifstream table("/proc/net/udp");
  char wanted[8];
  std::snprintf(wanted, sizeof wanted, ":%04X ", unsigned{port});
  for (std::string line; std::getline(table, line);) {
    const std::size_t local = line.find(": ");  // behind the slot number
    if (local != std::string::npos && line.find(wanted) == local + 2 + kAddressLength) {
      return line;
    }
  }
  return {};
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
  std::vector<std::string> command = start.command;
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (std::string& text : command) {
    arguments.push_back(text.data());
  }
  arguments.push_back(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    Execute(arguments.data(), start.core);
  }
  if (pid_ == -1) {
    throw tools::ToolError("cannot start " + name_ + ": " + std::strerror(errno));
  }
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
  // Slot, local and remote address, state, tx_queue:rx_queue in hexadecimal, ..., drops.
  std::istringstream fields(SocketLine(port));
  std::vector<std::string> columns;
  for (std::string column; fields >> column;) {
    columns.push_back(column);
  }
  constexpr std::size_t kQueues = 4;
  if (columns.size() <= kQueues) {
    return {};
  }
  const std::string& queues = columns[kQueues];
  return {.queued_bytes = std::stoull(queues.substr(queues.find(':') + 1), nullptr, 16),
          .dropped = std::stoull(columns.back())};
}

void AwaitUdpPort(std::uint16_t port) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (SocketLine(port).empty()) {
    if (std::chrono::steady_clock::now() > deadline) {
      throw tools::ToolError("nobody opened UDP port " + std::to_string(port));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds{10});
  }
}

}  // namespace kestrelbridge::bench
