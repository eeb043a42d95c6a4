#include "console/connection.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace kestrelbridge::console {
namespace {

constexpr std::size_t kHeadSize = 4'096;
constexpr std::size_t kBodyPiece = 16'384;
constexpr std::size_t kLongestHeader = 2'048;
constexpr double kCommandsAtOnce = 10;
constexpr double kCommandsASecond = 5;

static_assert(kHeadRoom >= LWS_PRE);

std::span<const std::uint8_t> BodyOf(const Answer& answer) {
  if (!answer.fixed.empty()) {
    return answer.fixed;
  }
  return {reinterpret_cast<const std::uint8_t*>(answer.body.data()), answer.body.size()};
}

bool HasBody(unsigned status) { return status != 204 && status != 304; }

bool AddHeader(lws* wsi, std::string_view name, std::string_view value, unsigned char*& at,
               unsigned char* end) {
  return lws_add_http_header_by_name(
             wsi, reinterpret_cast<const unsigned char*>(std::string(name).c_str()),
             reinterpret_cast<const unsigned char*>(value.data()), static_cast<int>(value.size()),
             &at, end) == 0;
}

}  // namespace

void Enqueue(Connection& connection, const SharedMessage& message) {
  connection.queued_bytes += message->size();
  if (connection.queued_bytes > kMostQueued) {
    connection.queue.clear();
    CloseWith(connection, kTryLater, "you do not read what is sent");
    return;
  }
  connection.queue.push_back(message);
  lws_callback_on_writable(connection.wsi);
}

void CloseWith(Connection& connection, std::uint16_t code, const char* text) {
  if (connection.close_code == 0) {
    connection.close_code = code;
    connection.close_text = text;
  }
  lws_callback_on_writable(connection.wsi);
}

bool MayCommand(Connection& connection, std::chrono::steady_clock::time_point now) {
  const std::chrono::duration<double> passed = now - connection.credit_time;
  connection.credit_time = now;
  connection.command_credit =
      std::min(kCommandsAtOnce, connection.command_credit + passed.count() * kCommandsASecond);
  if (connection.command_credit < 1) {
    return false;
  }
  connection.command_credit -= 1;
  return true;
}

std::string HeaderOf(lws* wsi, lws_token_indexes token) {
  std::array<char, kLongestHeader> text{};
  const int length = lws_hdr_copy(wsi, text.data(), text.size(), token);
  return length > 0 ? std::string(text.data(), static_cast<std::size_t>(length)) : "";
}

Request ReadRequest(lws* wsi, const std::string& peer) {
  Request request;
  char* uri = nullptr;
  int uri_length = 0;
  const int method = lws_http_get_uri_and_method(wsi, &uri, &uri_length);
  request.method = method == LWSHUMETH_GET    ? Method::kGet
                   : method == LWSHUMETH_POST ? Method::kPost
                                              : Method::kOther;
  if (method >= 0 && uri != nullptr && uri_length > 0) {
    request.path.assign(uri, static_cast<std::size_t>(uri_length));
  }
  request.host = HeaderOf(wsi, WSI_TOKEN_HOST);
  request.origin = HeaderOf(wsi, WSI_TOKEN_ORIGIN);
  request.accepts = HeaderOf(wsi, WSI_TOKEN_HTTP_ACCEPT_ENCODING);
  request.content_type = HeaderOf(wsi, WSI_TOKEN_HTTP_CONTENT_TYPE);
  request.known_tag = HeaderOf(wsi, WSI_TOKEN_HTTP_IF_NONE_MATCH);
  request.credentials = {.cookies = HeaderOf(wsi, WSI_TOKEN_HTTP_COOKIE),
                         .authorization = HeaderOf(wsi, WSI_TOKEN_HTTP_AUTHORIZATION),
                         .peer = peer};
  return request;
}

int SendHead(Connection& connection, std::string_view host) {
  lws* const wsi = connection.wsi;
  const Answer& answer = connection.answer;
  std::array<unsigned char, LWS_PRE + kHeadSize> buffer{};
  unsigned char* const start = buffer.data() + LWS_PRE;
  unsigned char* const end = buffer.data() + buffer.size() - 1;
  unsigned char* at = start;
  bool fits = lws_add_http_header_status(wsi, answer.status, &at, end) == 0;
  for (const auto& [name, value] : SecurityHeaders(host)) {
    fits = fits && AddHeader(wsi, name, value, at, end);
  }
  for (const auto& [name, value] : answer.headers) {
    fits = fits && AddHeader(wsi, name, value, at, end);
  }
  const std::size_t length = HasBody(answer.status) ? BodyOf(answer).size() : 0;
  if (HasBody(answer.status)) {
    fits = fits && AddHeader(wsi, "content-type:", answer.type, at, end);
  }
  fits = fits && lws_add_http_header_content_length(wsi, length, &at, end) == 0;
  if (!fits || lws_finalize_write_http_header(wsi, start, &at, end) != 0) {
    return -1;
  }
  connection.sent = 0;
  if (length == 0) {
    return lws_http_transaction_completed(wsi) != 0 ? -1 : 0;
  }
  lws_callback_on_writable(wsi);
  return 0;
}

int SendBody(Connection& connection) {
  const auto rest = BodyOf(connection.answer).subspan(connection.sent);
  if (rest.empty()) {
    return 0;
  }
  const auto piece = rest.first(std::min(rest.size(), kBodyPiece));
  const bool is_last = piece.size() == rest.size();
  std::array<unsigned char, LWS_PRE + kBodyPiece> buffer;
  std::memcpy(buffer.data() + LWS_PRE, piece.data(), piece.size());
  if (lws_write(connection.wsi, buffer.data() + LWS_PRE, piece.size(),
                is_last ? LWS_WRITE_HTTP_FINAL : LWS_WRITE_HTTP) < 0) {
    return -1;
  }
  connection.sent += piece.size();
  if (is_last) {
    connection.answer = {};
    connection.sent = 0;
    return lws_http_transaction_completed(connection.wsi) != 0 ? -1 : 0;
  }
  lws_callback_on_writable(connection.wsi);
  return 0;
}

}  // namespace kestrelbridge::console
