#include "tools/camera/bad_packet_log.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>

#include "tools/common/foreign_text.h"

namespace kestrelbridge::tools {
namespace {

constexpr std::size_t kMaxPrinted = 100;
constexpr std::size_t kMaxBytesPrinted = 300;  // the longest packet of the daemon has 289

}  // namespace

void BadPacketLog::Note(const char* fault, std::span<const std::uint8_t> packet) {
  const auto printed = packet.first(std::min(packet.size(), kMaxBytesPrinted));
  const std::string line = std::string(fault) + " (" + std::to_string(packet.size()) +
                           " bytes):" + HexText(printed, " ", kUpperHex) +
                           (printed.size() < packet.size() ? " ..." : "");
  if (const auto known = times_.find(line); known != times_.end()) {
    ++known->second;
  } else if (times_.size() < kMaxPrinted) {
    times_.emplace(line, 1);
    std::printf("bad packet: %s\n", line.c_str());
  } else if (!full_) {
    full_ = true;
    std::printf("bad packet: further ones are counted, not printed\n");
  }
}

void BadPacketLog::PrintRepeats() const {
  for (const auto& [line, times] : times_) {
    if (times > 1) {
      std::printf("bad packet, %llu times: %s\n", static_cast<unsigned long long>(times),
                  line.c_str());
    }
  }
}

}  // namespace kestrelbridge::tools
