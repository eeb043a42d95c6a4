// The gate of the console: whether a request may pass, and what it has to do first. Time is passed
// in. One thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "console/access.h"
#include "console/sign_in.h"

namespace kestrelbridge::console {

inline constexpr char kSessionCookie[] = "kestrel_session";

// What a request brings; empty where it does not.
struct Credentials {
  std::string cookies;
  std::string authorization;
  std::string peer;  // its address
};

class Gate {
 public:
  // No password (empty): everybody may pass whose Host header is one of ours.
  Gate(std::string password, HostNames hosts, bool is_secure)
      : password_(std::move(password)), hosts_(std::move(hosts)), is_secure_(is_secure) {}

  [[nodiscard]] bool needs_password() const { return !password_.empty(); }
  [[nodiscard]] bool Knows(std::string_view host) const { return IsKnownHost(host, hosts_); }

  // A password in the request counts as a try, and is slowed like one.
  bool MayPass(const Credentials& credentials, SteadyTime now);

  // The session of the request; empty when there is none.
  [[nodiscard]] std::string SessionOf(std::string_view cookies, SteadyTime now) const;

  struct SignIn {
    bool is_right = false;
    std::string set_cookie = {};                    // when right
    std::optional<std::chrono::seconds> wait = {};  // not tried: come back then
  };
  SignIn TakePassword(std::string_view given, const std::string& peer, SteadyTime now);

  // Returns what takes the cookie away.
  std::string SignOut(std::string_view cookies, SteadyTime now);

 private:
  [[nodiscard]] std::string CookieText(std::string_view value, std::chrono::seconds life) const;

  std::string password_;
  HostNames hosts_;
  bool is_secure_;
  AttemptLimit attempts_;
  Sessions sessions_;
};

}  // namespace kestrelbridge::console
