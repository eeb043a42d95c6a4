// Who is signed in, and how often somebody may try. Time is passed in. One thread.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace kestrelbridge::console {

using SteadyTime = std::chrono::steady_clock::time_point;

// Slows down who guesses: after three wrong passwords from one address each further one costs twice
// the time of the one before, up to a minute; and all addresses together have ten tries a second,
// since a guesser may have many.
class AttemptLimit {
 public:
  // How long this address has to wait before its next try; nothing when it may try now.
  std::optional<std::chrono::seconds> Wait(const std::string& address, SteadyTime now);

  void CountWrong(const std::string& address, SteadyTime now);
  void Forgive(const std::string& address) { failures_.erase(address); }

 private:
  static constexpr std::size_t kMostAddresses = 1'000;

  struct Failures {
    int count = 0;
    SteadyTime not_before;
  };
  std::map<std::string, Failures> failures_;
  SteadyTime second_;  // began then,
  int tries_ = 0;      // and has seen so many
};

// Sessions by their cookie's value: 128 random bits. A restart forgets them all.
class Sessions {
 public:
  static constexpr std::size_t kMost = 64;  // the oldest goes
  static constexpr std::chrono::hours kLife{24 * 7};

  // A new session's cookie value.
  std::string Begin(SteadyTime now);
  [[nodiscard]] bool IsKnown(std::string_view token, SteadyTime now) const;
  void End(std::string_view token);

 private:
  std::map<std::string, SteadyTime, std::less<>> began_;
};

}  // namespace kestrelbridge::console
