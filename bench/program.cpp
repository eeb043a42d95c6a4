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

#include "tools/tool_error.h"

namespace kestrelbridge::bench {
namespace {

constexpr std::chrono::seconds kPatience{10};

// Runs in the child, between fork and exec: system calls only.
[[noreturn]] void Execute(char* const* arguments, int core) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (core >= 0) {
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(static_cast<std::size_t>(core), &cores);
    sched_setaffinity(0, sizeof cores, &cores);
  }
  const int nothing = open("/dev/null", O_RDWR);
  dup2(nothing, STDIN_FILENO);
  dup2(nothing, STDOUT_FILENO);
  dup2(nothing, STDERR_FILENO);
  close_range(3, UINT_MAX, CLOSE_RANGE_CLOEXEC);
  execvp(arguments[0], arguments);
  _exit(127);
}

bool IsBound(std::uint16_t port) {
  std::ifstream table("/proc/net/udp");
  char wanted[8];
  std::snprintf(wanted, sizeof wanted, ":%04X ", unsigned{port});
  for (std::string line; std::getline(table, line);) {
    const std::size_t local = line.find(": ");  // behind the slot number
    if (local != std::string::npos && line.find(wanted, local + 2) == local + 2 + 8) {
      return true;
    }
  }
  return false;
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
    throw ToolError("cannot start " + name_ + ": " + std::strerror(errno));
  }
}

Program::~Program() {
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

std::chrono::nanoseconds Program::ProcessorTime() const {
  clockid_t clock = 0;
  std::timespec time{};
  siginfo_t end{};
  if (waitid(P_PID, static_cast<id_t>(pid_), &end, WEXITED | WNOHANG | WNOWAIT) != 0 ||
      end.si_pid != 0 || clock_getcpuclockid(pid_, &clock) != 0 ||
      clock_gettime(clock, &time) != 0) {
    throw ToolError(name_ + " ended while it was measured");
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
    throw ToolError("the kernel does not say how much memory " + name_ + " uses");
  }
  return memory;
}

void AwaitUdpPort(std::uint16_t port) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!IsBound(port)) {
    if (std::chrono::steady_clock::now() > deadline) {
      throw ToolError("nobody opened UDP port " + std::to_string(port));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds{10});
  }
}

}  // namespace kestrelbridge::bench
