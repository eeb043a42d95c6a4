#include "console/web_client.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>

namespace kestrelbridge::test {

TcpClient::TcpClient(std::uint16_t port) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    shutdown(socket_, SHUT_RDWR);
  }
}

TcpClient::~TcpClient() { close(socket_); }

bool TcpClient::Send(std::string_view bytes) const {
  while (!bytes.empty()) {
    const ssize_t sent = send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) {
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

bool TcpClient::Fill() {
  pollfd descriptor = {.fd = socket_, .events = POLLIN, .revents = 0};
  std::array<char, 65'536> bytes;
  if (poll(&descriptor, 1, static_cast<int>(Patience().count())) <= 0) {
    return false;
  }
  const ssize_t length = recv(socket_, bytes.data(), bytes.size(), 0);
  buffer_.append(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
  return length > 0;
}

std::optional<std::string> TcpClient::Read(std::size_t length) {
  while (buffer_.size() < length) {
    if (!Fill()) {
      return std::nullopt;
    }
  }
  std::string taken = buffer_.substr(0, length);
  buffer_.erase(0, length);
  return taken;
}

std::optional<std::string> TcpClient::ReadThrough(std::string_view text) {
  while (buffer_.find(text) == std::string::npos) {
    if (!Fill()) {
      return std::nullopt;
    }
  }
  return Read(buffer_.find(text) + text.size());
}

bool TcpClient::SeesTheEnd() {
  const auto deadline = std::chrono::steady_clock::now() + Patience();
  while (Fill()) {
    buffer_.clear();
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
  }
  return std::chrono::steady_clock::now() < deadline;
}

std::string HttpReply::Header(std::string_view name) const {
  const std::string start = "\r\n" + std::string(name) + ": ";
  const std::size_t at = head.find(start);
  return at == head.npos
             ? ""
             : head.substr(at + start.size(), head.find("\r\n", at + 2) - at - start.size());
}

std::string BytesOf(const HttpRequest& request, std::uint16_t port) {
  const std::string host =
      request.host.empty() ? "127.0.0.1:" + std::to_string(port) : request.host;
  return request.line + " HTTP/1.1\r\nHost: " + host + "\r\n" + request.headers +
         (request.line.starts_with("POST")
              ? "Content-Length: " + std::to_string(request.body.size()) + "\r\n"
              : "") +
         "\r\n" + request.body;
}

HttpReply ReadReply(TcpClient& client) {
  HttpReply reply;
  auto head = client.ReadThrough("\r\n\r\n");
  if (!head) {
    return reply;
  }
  std::ranges::transform(*head, head->begin(), [](unsigned char c) { return std::tolower(c); });
  reply.head = *head;
  reply.status = std::atoi(reply.head.substr(std::min<std::size_t>(reply.head.size(), 9)).c_str());
  const std::string length = reply.Header("content-length");
  reply.body = client.Read(static_cast<std::size_t>(std::atoll(length.c_str()))).value_or("");
  return reply;
}

HttpReply Fetch(std::uint16_t port, const HttpRequest& request) {
  TcpClient client(port);
  return client.Send(BytesOf(request, port)) ? ReadReply(client) : HttpReply();
}

int Frame::CloseCode() const {
  return opcode != kCloseFrame || payload.size() < 2
             ? 0
             : static_cast<unsigned char>(payload[0]) << 8 | static_cast<unsigned char>(payload[1]);
}

WebSocketClient::WebSocketClient(std::uint16_t port, std::string_view path, const Options& options)
    : tcp_(port) {
  const std::string host =
      options.host.empty() ? "127.0.0.1:" + std::to_string(port) : options.host;
  const std::string origin = options.origin.empty() ? "http://" + host : options.origin;
  HttpRequest request{.line = "GET " + std::string(path), .host = host};
  request.headers =
      "Upgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
      "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n";
  request.headers += origin == "-" ? "" : "Origin: " + origin + "\r\n";
  request.headers += options.cookie.empty() ? "" : "Cookie: " + options.cookie + "\r\n";
  if (const auto head =
          tcp_.Send(BytesOf(request, port)) ? tcp_.ReadThrough("\r\n\r\n") : std::nullopt) {
    status_ = std::atoi(head->substr(std::min<std::size_t>(head->size(), 9)).c_str());
  }
}

Frame WebSocketClient::Receive() {
  for (;;) {
    const auto start = tcp_.Read(2);
    if (!start) {
      return {};
    }
    Frame frame{.opcode = (*start)[0] & 0x0F, .payload = {}};
    std::size_t length = static_cast<unsigned char>((*start)[1]);
    if (length >= 126) {
      const auto bytes = tcp_.Read(length == 126 ? 2 : 8);
      length = 0;
      for (const char byte : bytes.value_or("")) {
        length = length << 8 | static_cast<unsigned char>(byte);
      }
    }
    auto payload = tcp_.Read(length);
    if (!payload) {
      return {};
    }
    frame.payload = *std::move(payload);
    constexpr int kPing = 9;
    constexpr int kPong = 10;
    if (frame.opcode != kPing) {
      return frame;
    }
    Send(frame.payload, kPong);
  }
}

std::string WebSocketClient::ReceiveText(std::string_view part) {
  const auto deadline = std::chrono::steady_clock::now() + Patience();
  while (std::chrono::steady_clock::now() < deadline) {
    const Frame frame = Receive();
    if (frame.opcode == kTextFrame && frame.payload.find(part) != std::string::npos) {
      return frame.payload;
    }
    if (frame.opcode == 0 || frame.opcode == kCloseFrame) {
      break;
    }
  }
  return {};
}

int WebSocketClient::ReceiveClose() {
  const auto deadline = std::chrono::steady_clock::now() + Patience();
  while (std::chrono::steady_clock::now() < deadline) {
    const Frame frame = Receive();
    if (frame.opcode == 0 || frame.opcode == kCloseFrame) {
      return frame.CloseCode();
    }
  }
  return 0;
}

bool WebSocketClient::Send(std::string_view payload, int opcode, bool is_last) {
  constexpr char kMask[] = {0x21, 0x42, 0x13, 0x7A};
  std::string frame = {static_cast<char>(opcode | (is_last ? 0x80 : 0))};
  if (payload.size() < 126) {
    frame += static_cast<char>(0x80 | payload.size());
  } else {
    frame += static_cast<char>(0x80 | 126);
    frame += static_cast<char>(payload.size() >> 8);
    frame += static_cast<char>(payload.size() & 0xFF);
  }
  frame.append(kMask, sizeof kMask);
  for (std::size_t i = 0; i < payload.size(); ++i) {
    frame += static_cast<char>(payload[i] ^ kMask[i % sizeof kMask]);
  }
  return tcp_.Send(frame);
}

}  // namespace kestrelbridge::test
