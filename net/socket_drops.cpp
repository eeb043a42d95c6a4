#include "net/socket_drops.h"

#include <sys/stat.h>

#include <cstdio>

namespace kestrelbridge {
namespace {

// By this number the table names a socket; 0: none.
unsigned long SocketNumber(int socket) {
  struct stat status {};
  return fstat(socket, &status) == 0 ? static_cast<unsigned long>(status.st_ino) : 0;
}

// Of a line with these columns, of which the title line has words instead:
//   slot local remote state tx:rx timer retransmits user timeout socket references pointer drops
bool ParseLine(const char* line, unsigned long& socket_number, unsigned long long& drops) {
  return std::sscanf(line, "%*s %*s %*s %*s %*s %*s %*s %*s %*s %lu %*s %*s %llu", &socket_number,
                     &drops) == 2;
}

}  // namespace

bool ReadSocketDrops(std::span<SocketDrops> sockets) {
  // The service sees of /proc only the folders of processes (ProcSubset=pid in its unit), so
  // /proc/net/udp is not there; the same table stands below each process.
  std::FILE* table = std::fopen("/proc/self/net/udp", "re");
  if (table == nullptr) {
    return false;
  }
  char line[512];
  while (std::fgets(line, sizeof line, table) != nullptr) {
    unsigned long number = 0;
    unsigned long long drops = 0;
    if (!ParseLine(line, number, drops) || number == 0) {
      continue;
    }
    for (SocketDrops& socket : sockets) {
      if (SocketNumber(socket.socket) == number) {
        socket.drops = drops;
      }
    }
  }
  std::fclose(table);
  return true;
}

}  // namespace kestrelbridge
