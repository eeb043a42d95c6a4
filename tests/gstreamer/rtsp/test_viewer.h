// A viewer who counts, in place of a player: by UDP or over the connection, as slow as the test
// likes.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "support/eventually.h"
#include "tools/common/udp_socket.h"

namespace kestrelbridge::test {

inline constexpr std::uint16_t kRtspPort = 8554;

struct RtspResponse {
  int status = 0;
  std::string text;  // header and body
};

// What came of the stream.
struct Seen {
  int packets = 0;
  int pictures = 0;      // whole, as their last packet tells
  int gaps = 0;          // in the packets' numbers
  int wrong_starts = 0;  // at the beginning and behind gaps: without a parameter set
  bool operator==(const Seen&) const = default;
};

// One thread.
class TestViewer {
 public:
  enum class Way { kUdp, kConnection };

  // receive_buffer: of the connection, in bytes; 0: the system's.
  explicit TestViewer(Way way = Way::kConnection, int receive_buffer = 0);
  TestViewer(const TestViewer&) = delete;
  TestViewer& operator=(const TestViewer&) = delete;
  ~TestViewer();

  // CSeq and, once there is one, Session are added; `headers` end in a line end each. Status 0: no
  // answer.
  RtspResponse Ask(std::string_view method, std::string_view path = "/live",
                   std::string_view headers = "", std::string_view body = "");

  // The status of SETUP, and when that went well, of PLAY.
  int Watch(std::string_view headers = "");

  // Takes what has come by now.
  const Seen& Receive();

 private:
  void Cut();
  void TakePacket(std::span<const std::uint8_t> packet);

  int connection_;
  std::unique_ptr<tools::UdpSocket> rtp_;  // by UDP, with a large buffer
  std::string input_;                      // of the connection, not yet taken apart
  std::deque<RtspResponse> responses_;
  std::string session_;
  int requests_ = 0;
  std::optional<std::uint16_t> last_number_;
  Seen seen_;
};

}  // namespace kestrelbridge::test
