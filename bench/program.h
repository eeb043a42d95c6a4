// A program under test, and what the kernel says about it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "net/udp_endpoint.h"

namespace kestrelbridge::bench {

// 127.0.0.1 in network byte order, as UdpPeer wants it.
std::uint32_t Loopback();

// The two processor cores that a measurement uses: one for what is measured, the other one for the
// load, so that neither takes time from the other. On a machine with one core they are the same.
struct Cores {
  int subject = 0;
  int load = 0;
};
Cores ChooseCores();

// This thread, and those that it starts, run on that core from now on.
void PinToCore(int core);

struct Memory {
  std::size_t own_bytes = 0;     // the process's share of heap, stacks, code and libraries
  std::size_t shared_bytes = 0;  // its share of shared memory: the ring
};

struct ProgramStart {
  std::vector<std::string> command;  // command[0] is looked up in PATH
  int core = -1;                     // -1: any
};

// Its output goes into a file in /run, its input is empty. Killed with its object.
class Program {
 public:
  explicit Program(const ProgramStart& start);
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program();

  // Throws ToolError, with the last line of its output, when it has ended.
  void CheckAlive() const;

  // Processor time of all its threads, user and system together. Throws as above.
  [[nodiscard]] std::chrono::nanoseconds ProcessorTime() const;
  [[nodiscard]] Memory MemoryUse() const;

 private:
  std::string name_;
  pid_t pid_ = -1;
};

// What the kernel knows about the socket of that port.
struct SocketFill {
  std::uint64_t queued_bytes = 0;
  std::uint64_t dropped = 0;  // datagrams, for want of room, since it was opened
};
SocketFill LookAtSocket(std::uint16_t port);

// Waits until somebody has bound the port. Throws ToolError after ten seconds.
void AwaitUdpPort(std::uint16_t port);

}  // namespace kestrelbridge::bench
