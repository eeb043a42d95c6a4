#include "tools/common/udp_table.h"

#include <cinttypes>
#include <cstdio>
#include <fstream>

namespace kestrelbridge::tools {

std::vector<UdpTableRow> ReadUdpTable(const std::string& path) {
  std::vector<UdpTableRow> rows;
  std::ifstream table(path);
  for (std::string line; std::getline(table, line);) {
    // slot local remote state tx:rx timer retransmits user timeout socket references pointer drops;
    // the title line has words instead.
    UdpTableRow row;
    unsigned port = 0;
    if (std::sscanf(line.c_str(),
                    "%*s %*[0-9A-F]:%x %*s %*s %*[0-9A-F]:%" SCNx64 " %*s %*s %*s %*s %" SCNu64
                    " %*s %*s %" SCNu64,
                    &port, &row.queued_bytes, &row.socket, &row.drops) == 4) {
      row.port = static_cast<std::uint16_t>(port);
      rows.push_back(row);
    }
  }
  return rows;
}

}  // namespace kestrelbridge::tools
