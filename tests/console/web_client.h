// A browser's side of a connection, byte by byte, so that a test can also do what no browser does.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "support/eventually.h"

namespace kestrelbridge::test {

class TcpClient {
 public:
  explicit TcpClient(std::uint16_t port);
  ~TcpClient();
  TcpClient(const TcpClient&) = delete;
  TcpClient& operator=(const TcpClient&) = delete;

  bool Send(std::string_view bytes) const;
  // So many bytes, or everything up to the text's end; nothing when the other end closes before, or
  // in time they do not come.
  std::optional<std::string> Read(std::size_t length);
  std::optional<std::string> ReadThrough(std::string_view text);
  // Whether the other end closes. What it sends before is dropped.
  bool SeesTheEnd();

 private:
  bool Fill();

  int socket_;
  std::string buffer_;
};

struct HttpReply {
  int status = 0;    // 0: there was none
  std::string head;  // in lower case
  std::string body;
  // The header's value; empty without.
  std::string Header(std::string_view name) const;
};

struct HttpRequest {
  std::string line = "GET /";
  std::string host = {};     // empty: the address
  std::string headers = {};  // further ones, each with its line end
  std::string body = {};
};
std::string BytesOf(const HttpRequest& request, std::uint16_t port);
HttpReply Fetch(std::uint16_t port, const HttpRequest& request);
HttpReply ReadReply(TcpClient& client);

inline constexpr int kTextFrame = 1;
inline constexpr int kBinaryFrame = 2;
inline constexpr int kCloseFrame = 8;

struct Frame {
  int opcode = 0;  // 0 as well when nothing came
  std::string payload;
  int CloseCode() const;  // 0: it is no close
};

class WebSocketClient {
 public:
  struct Options {
    std::string host = {};    // empty: the address
    std::string origin = {};  // empty: the page of that host; "-": none
    std::string cookie = {};
  };
  WebSocketClient(std::uint16_t port, std::string_view path) : WebSocketClient(port, path, {}) {}
  WebSocketClient(std::uint16_t port, std::string_view path, const Options& options);

  int status() const { return status_; }  // 101: it is one

  // The next frame that is no ping; an answer to that is sent.
  Frame Receive();
  // The next text with this in it, others dropped; empty when none came.
  std::string ReceiveText(std::string_view part);
  // What the other end closes with; 0 when it does not.
  int ReceiveClose();

  // A message of the page, or a part of one.
  bool Send(std::string_view payload, int opcode = kTextFrame, bool is_last = true);
  TcpClient& tcp() { return tcp_; }

 private:
  TcpClient tcp_;
  int status_ = 0;
};

}  // namespace kestrelbridge::test
