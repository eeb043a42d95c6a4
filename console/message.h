// What goes out through a WebSocket, once for all who get it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

namespace kestrelbridge::console {

// The library writes the frame's header in front of what it sends, into room that the buffer must
// have (LWS_PRE). It is the same for everybody, so all viewers are sent from one buffer.
inline constexpr std::size_t kHeadRoom = 32;

class Message {
 public:
  explicit Message(std::size_t length) : bytes_(kHeadRoom + length) {}
  explicit Message(std::string_view text) : Message(text.size()) {
    std::memcpy(content().data(), text.data(), text.size());
  }

  // With kHeadRoom bytes before it.
  std::span<std::uint8_t> content() { return std::span(bytes_).subspan(kHeadRoom); }
  [[nodiscard]] std::size_t size() const { return bytes_.size() - kHeadRoom; }

 private:
  std::vector<std::uint8_t> bytes_;
};

using SharedMessage = std::shared_ptr<Message>;

}  // namespace kestrelbridge::console
