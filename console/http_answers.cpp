#include "console/http_answers.h"

#include <algorithm>

#include "console/page_files.h"
#include "tools/common/foreign_text.h"

namespace kestrelbridge::console {
namespace {

using tools::JsonString;

constexpr std::string_view kJson = "application/json";
constexpr char kNever[] = "no-store";

Answer Refusal(unsigned status, std::string_view text) {
  return {
      .status = status, .headers = {{"cache-control:", kNever}}, .body = std::string(text) + "\n"};
}

Answer JsonAnswer(unsigned status, std::string json) {
  return {.status = status,
          .type = kJson,
          .headers = {{"cache-control:", kNever}},
          .body = std::move(json)};
}

Answer ErrorJson(unsigned status, std::string_view text) {
  return JsonAnswer(status, R"({"error":)" + JsonString(text) + "}");
}

Answer FileAnswer(const PageFile& file, const Request& request) {
  Answer answer{.type = file.type,
                .headers = {{"cache-control:", "no-cache"},
                            {"etag:", std::string(file.tag)},
                            {"vary:", "accept-encoding"}}};
  if (request.known_tag.find(file.tag) != std::string::npos) {
    answer.status = 304;
    return answer;
  }
  if (request.accepts.find("gzip") == std::string::npos) {
    return Refusal(406, "The page comes compressed with gzip alone (curl --compressed).");
  }
  answer.headers.emplace_back("content-encoding:", "gzip");
  answer.fixed = file.gzip;
  return answer;
}

// --- the table of paths
// ---------------------------------------------------------------------------

Answer Session(const Request& request, Console& console, SteadyTime now) {
  Gate& gate = console.gate;
  const bool signed_in =
      !gate.needs_password() || !gate.SessionOf(request.credentials.cookies, now).empty();
  return JsonAnswer(200, R"({"version":)" + JsonString(console.version) + R"(,"host":)" +
                             JsonString(console.machine) + R"(,"view_only":)" +
                             (console.view_only ? "true" : "false") + R"(,"signed_in":)" +
                             (signed_in ? "true" : "false") + R"(,"password_needed":)" +
                             (gate.needs_password() ? "true}" : "false}"));
}

Answer SignIn(const Request& request, Console& console, SteadyTime now) {
  if (!request.content_type.starts_with(kJson)) {
    return ErrorJson(415, "the password comes as application/json");
  }
  const auto password = PostedPassword(request.body);
  if (!password) {
    return ErrorJson(400, R"(what comes is {"password":"..."})");
  }
  const Gate::SignIn outcome = console.gate.TakePassword(*password, request.credentials.peer, now);
  if (outcome.is_right) {
    return {.status = 204,
            .headers = {{"cache-control:", kNever}, {"set-cookie:", outcome.set_cookie}}};
  }
  ++console.counters.sign_ins_refused;
  if (!outcome.wait) {
    return ErrorJson(403, "wrong password");
  }
  const std::string seconds = std::to_string(outcome.wait->count());
  Answer answer =
      JsonAnswer(429, R"({"error":"too many wrong passwords","retry_after_s":)" + seconds + "}");
  answer.headers.emplace_back("retry-after:", seconds);
  return answer;
}

Answer SignOut(const Request& request, Console& console, SteadyTime now) {
  Answer answer{.status = 204, .headers = {{"cache-control:", kNever}}};
  answer.ended_session = console.gate.SessionOf(request.credentials.cookies, now);
  answer.headers.emplace_back("set-cookie:",
                              console.gate.SignOut(request.credentials.cookies, now));
  return answer;
}

Answer Snapshot(const Request& /*request*/, Console& console, SteadyTime /*now*/) {
  const Unit* const keyframe = console.history.LastKeyframe();
  if (keyframe == nullptr) {
    return Refusal(503, "There is no keyframe yet; the page tells why.");
  }
  Answer answer{.type = "video/h264", .headers = {{"cache-control:", kNever}}};
  answer.fixed = PayloadOf(*keyframe);
  answer.keeps_fixed = keyframe->message;
  return answer;
}

Answer Metrics(const Request& /*request*/, Console& console, SteadyTime /*now*/) {
  return {.type = "text/plain; version=0.0.4; charset=utf-8",
          .headers = {{"cache-control:", kNever}},
          .body = AllMetrics(console.counters)};
}

Answer Health(const Request& /*request*/, Console& /*console*/, SteadyTime /*now*/) {
  return {.headers = {{"cache-control:", kNever}}, .body = "ok\n"};
}

struct Path {
  std::string_view path;
  Method method;
  bool is_open;  // also to those who have not signed in
  Answer (*answer)(const Request& request, Console& console, SteadyTime now);
};
constexpr Path kPaths[] = {
    {"/session", Method::kGet, true, Session},   {"/sign-in", Method::kPost, true, SignIn},
    {"/sign-out", Method::kPost, true, SignOut}, {"/healthz", Method::kGet, true, Health},
    {"/metrics", Method::kGet, false, Metrics},  {"/snapshot.h264", Method::kGet, false, Snapshot},
};

// Nothing that the page itself could not have asked: a form of another page brings its own origin.
bool IsForeign(const Request& request) {
  return request.method == Method::kPost && !request.origin.empty() &&
         !IsSameOrigin(request.origin, request.host);
}

Answer AnswerOfTable(const Request& request, Console& console, SteadyTime now) {
  const auto path = std::ranges::find(kPaths, request.path, &Path::path);
  if (path == std::end(kPaths)) {
    return Refusal(404, "There is no such page here.");
  }
  if (path->method != request.method) {
    return Refusal(405, "That is not how this path is used.");
  }
  if (!path->is_open && !console.gate.MayPass(request.credentials, now)) {
    return Refusal(401, "Sign in first; a program sends the password as HTTP's basic one.");
  }
  return path->answer(request, console, now);
}

}  // namespace

Answer AnswerTo(const Request& request, Console& console, SteadyTime now) {
  if (!console.gate.Knows(request.host)) {
    ++console.counters.requests_refused;
    return Refusal(request.host.empty() ? 400 : 403,
                   "This box is not called that: --allow-host lets a name in.");
  }
  if (IsForeign(request)) {
    ++console.counters.requests_refused;
    return Refusal(403, "That comes from another page.");
  }
  const auto file = std::ranges::find(PageFiles(), request.path, &PageFile::path);
  if (request.method == Method::kGet && file != PageFiles().end()) {
    return FileAnswer(*file, request);  // to everybody: it holds no secret, and asks to sign in
  }
  return AnswerOfTable(request, console, now);
}

std::vector<std::pair<std::string_view, std::string>> SecurityHeaders(std::string_view host) {
  // Not every browser takes 'self' for WebSockets.
  const std::string sockets =
      host.empty() ? "" : " ws://" + std::string(host) + " wss://" + std::string(host);
  return {{"content-security-policy:",
           "default-src 'none'; script-src 'self'; style-src 'self' 'unsafe-inline'; "
           "img-src 'self' data: blob:; media-src 'self' blob:; connect-src 'self'" +
               sockets +
               "; worker-src 'self'; manifest-src 'self'; base-uri 'none'; form-action 'none'; "
               "frame-ancestors 'none'"},
          {"x-content-type-options:", "nosniff"},
          {"x-frame-options:", "DENY"},
          {"referrer-policy:", "no-referrer"},
          {"cross-origin-resource-policy:", "same-origin"},
          {"cross-origin-opener-policy:", "same-origin"}};
}

}  // namespace kestrelbridge::console
