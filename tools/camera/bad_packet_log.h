// Tells about bad packets without drowning the terminal in them.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>

namespace kestrelbridge::tools {

class BadPacketLog {
 public:
  // Prints the fault and the packet's bytes, unless this very packet was printed before; repeats
  // are counted.
  void Note(const char* fault, std::span<const std::uint8_t> packet);

  // Prints how often each packet was repeated.
  void PrintRepeats() const;

 private:
  std::map<std::string, std::uint64_t> times_;  // by what was printed
  bool full_ = false;
};

}  // namespace kestrelbridge::tools
