#include "gstreamer/rtsp/test_viewer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <system_error>

namespace kestrelbridge::test {
namespace {

constexpr std::size_t kRtpHeaderSize = 12;
constexpr std::uint8_t kPayloadType = 96;
constexpr std::size_t kFrameHeaderSize = 4;  // '$', channel, length

// The first NAL unit of an aggregate, or the only one of a packet.
bool BringsParameterSet(std::span<const std::uint8_t> packet) {
  const std::uint8_t type = packet[kRtpHeaderSize] & 0x1F;
  return type == 7 || (type == 24 && packet.size() > 15 && (packet[15] & 0x1F) == 7);
}

std::size_t BodyLength(const std::string& head) {
  const std::size_t at = head.find("Content-Length: ");
  return at == std::string::npos ? 0 : std::strtoul(&head[at + 16], nullptr, 10);
}

}  // namespace

TestViewer::TestViewer(Way way, int receive_buffer)
    : connection_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)),
      rtp_(way == Way::kUdp ? std::make_unique<tools::UdpSocket>(
                                  UdpPeer{.address = htonl(INADDR_LOOPBACK), .port = 0})
                            : nullptr) {
  if (receive_buffer != 0) {
    setsockopt(connection_, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(kRtspPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(connection_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    throw std::system_error(errno, std::generic_category(), "no RTSP server");
  }
}

TestViewer::~TestViewer() { close(connection_); }

RtspResponse TestViewer::Ask(std::string_view method, std::string_view path,
                             std::string_view headers, std::string_view body) {
  std::string request = std::string(method) + " rtsp://127.0.0.1:" + std::to_string(kRtspPort) +
                        std::string(path) + " RTSP/1.0\r\nCSeq: " + std::to_string(++requests_) +
                        "\r\n" + std::string(headers);
  if (!session_.empty()) {
    request += "Session: " + session_ + "\r\n";
  }
  if (!body.empty()) {
    request += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  }
  request += "\r\n" + std::string(body);
  if (send(connection_, request.data(), request.size(), MSG_NOSIGNAL) == -1) {
    return {};
  }
  pollfd input{.fd = connection_, .events = POLLIN, .revents = 0};
  while (responses_.empty() && poll(&input, 1, static_cast<int>(Patience().count())) == 1) {
    std::array<char, 65'536> bytes;
    const ssize_t size = recv(connection_, bytes.data(), bytes.size(), 0);
    if (size <= 0) {
      return {};
    }
    input_.append(bytes.data(), static_cast<std::size_t>(size));
    Cut();
  }
  if (responses_.empty()) {
    return {};
  }
  RtspResponse response = responses_.front();
  responses_.pop_front();
  return response;
}

int TestViewer::Watch(std::string_view headers) {
  const std::string way =
      rtp_ ? "RTP/AVP;unicast;client_port=" + std::to_string(rtp_->Local().port) + "-" +
                 std::to_string(rtp_->Local().port + 1)
           : "RTP/AVP/TCP;unicast;interleaved=0-1";
  const RtspResponse setup =
      Ask("SETUP", "/live/stream=0", "Transport: " + way + "\r\n" + std::string(headers));
  const std::size_t at = setup.text.find("Session: ");
  if (setup.status != 200 || at == std::string::npos) {
    return setup.status;
  }
  session_ = setup.text.substr(at + 9, setup.text.find_first_of(";\r", at) - at - 9);
  return Ask("PLAY", "/live", headers).status;
}

const Seen& TestViewer::Receive() {
  std::array<char, 65'536> bytes;
  ssize_t size = 0;
  while ((size = recv(connection_, bytes.data(), bytes.size(), MSG_DONTWAIT)) > 0) {
    input_.append(bytes.data(), static_cast<std::size_t>(size));
    Cut();
  }
  std::array<std::uint8_t, 65'536> space;
  std::span<const std::uint8_t> datagram;
  UdpPeer from;
  while (rtp_ && rtp_->Receive(space, datagram, from)) {
    TakePacket(datagram);
  }
  return seen_;
}

void TestViewer::Cut() {
  for (;;) {
    if (input_.starts_with('$')) {
      const auto* const bytes = reinterpret_cast<const std::uint8_t*>(input_.data());
      const std::size_t size =
          input_.size() < kFrameHeaderSize ? 0 : static_cast<std::size_t>(bytes[2] << 8 | bytes[3]);
      if (size == 0 || input_.size() < kFrameHeaderSize + size) {
        return;
      }
      if (bytes[1] == 0) {
        TakePacket({bytes + kFrameHeaderSize, size});
      }
      input_.erase(0, kFrameHeaderSize + size);
      continue;
    }
    const std::size_t end = input_.find("\r\n\r\n");
    if (end == std::string::npos || input_.size() < end + 4 + BodyLength(input_.substr(0, end))) {
      return;
    }
    const std::size_t size = end + 4 + BodyLength(input_.substr(0, end));
    responses_.push_back(
        {.status = std::atoi(input_.c_str() + sizeof "RTSP/1.0"), .text = input_.substr(0, size)});
    input_.erase(0, size);
  }
}

void TestViewer::TakePacket(std::span<const std::uint8_t> packet) {
  if (packet.size() <= kRtpHeaderSize || (packet[1] & 0x7F) != kPayloadType) {
    return;  // such as a report for the viewer of the port below
  }
  const auto number = static_cast<std::uint16_t>(packet[2] << 8 | packet[3]);
  const bool follows = last_number_ && static_cast<std::uint16_t>(*last_number_ + 1) == number;
  if (!follows) {
    seen_.gaps += last_number_ ? 1 : 0;
    seen_.wrong_starts += BringsParameterSet(packet) ? 0 : 1;
  }
  last_number_ = number;
  ++seen_.packets;
  seen_.pictures += (packet[1] & 0x80) != 0 ? 1 : 0;
}

}  // namespace kestrelbridge::test
