// A connection to a program on this box that answers at a path (SOCK_SEQPACKET: whole messages).
#pragma once

#include <cstdint>
#include <span>

namespace kestrelbridge::tools {

// Closes its socket when it goes. One thread.
class LocalSocket {
 public:
  LocalSocket() = default;
  ~LocalSocket() { Close(); }
  LocalSocket(const LocalSocket&) = delete;
  LocalSocket& operator=(const LocalSocket&) = delete;

  // False, with errno set, when nobody answers there or this user may not connect.
  [[nodiscard]] bool Connect(const char* path);

  // -1 while there is no connection.
  [[nodiscard]] int Descriptor() const { return socket_; }

  // Waits while the other end has no room. False, with errno set, when it has gone.
  [[nodiscard]] bool Send(std::span<const std::uint8_t> message) const;

  // The part of the buffer that the next message fills; empty, without waiting, when none has come.
  // Ends the connection when the other end has.
  std::span<const std::uint8_t> Receive(std::span<std::uint8_t> buffer);

 private:
  void Close();

  int socket_ = -1;
};

}  // namespace kestrelbridge::tools
