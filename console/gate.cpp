#include "console/gate.h"

namespace kestrelbridge::console {

bool Gate::MayPass(const Credentials& credentials, SteadyTime now) {
  if (!needs_password() || !SessionOf(credentials.cookies, now).empty()) {
    return true;
  }
  const auto password = BasicPassword(credentials.authorization);
  if (!password || attempts_.Wait(credentials.peer, now)) {
    return false;
  }
  if (!IsSamePassword(*password, password_)) {
    attempts_.CountWrong(credentials.peer, now);
    return false;
  }
  return true;
}

std::string Gate::SessionOf(std::string_view cookies, SteadyTime now) const {
  const auto token = CookieValue(cookies, kSessionCookie);
  return token && sessions_.IsKnown(*token, now) ? std::string(*token) : "";
}

Gate::SignIn Gate::TakePassword(std::string_view given, const std::string& peer, SteadyTime now) {
  if (const auto wait = attempts_.Wait(peer, now)) {
    return {.wait = wait};
  }
  if (!needs_password() || !IsSamePassword(given, password_)) {
    attempts_.CountWrong(peer, now);
    return {};
  }
  attempts_.Forgive(peer);
  return {.is_right = true, .set_cookie = CookieText(sessions_.Begin(now), Sessions::kLife)};
}

std::string Gate::SignOut(std::string_view cookies, SteadyTime now) {
  sessions_.End(SessionOf(cookies, now));
  return CookieText("", std::chrono::seconds{0});
}

std::string Gate::CookieText(std::string_view value, std::chrono::seconds life) const {
  return std::string(kSessionCookie) + "=" + std::string(value) +
         "; Path=/; HttpOnly; SameSite=Strict; Max-Age=" + std::to_string(life.count()) +
         (is_secure_ ? "; Secure" : "");
}

}  // namespace kestrelbridge::console
