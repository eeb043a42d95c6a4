// What the kernel threw away before we could receive it.
#pragma once

#include <cstdint>
#include <span>

namespace kestrelbridge {

struct SocketDrops {
  int socket = -1;
  std::uint64_t drops = 0;  // datagrams since the socket was opened
};

// Fills in the drops of these UDP sockets of the process, as the kernel's table has them; a socket
// that is not open has none. Returns false when the table cannot be read. Any thread.
[[nodiscard]] bool ReadSocketDrops(std::span<SocketDrops> sockets);

}  // namespace kestrelbridge
