#include "console/sign_in.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <stdexcept>

#include "tools/common/foreign_text.h"

namespace kestrelbridge::console {
namespace {

using std::chrono::seconds;

constexpr int kFreeTries = 3;
constexpr seconds kLongestWait{60};
constexpr int kTriesASecond = 10;
constexpr std::chrono::minutes kForgottenAfter{15};

}  // namespace

std::optional<seconds> AttemptLimit::Wait(const std::string& address, SteadyTime now) {
  const auto found = failures_.find(address);
  if (found != failures_.end() && now < found->second.not_before) {
    return std::chrono::ceil<seconds>(found->second.not_before - now);
  }
  if (now - second_ >= seconds{1}) {
    second_ = now;
    tries_ = 0;
  }
  return ++tries_ > kTriesASecond ? std::optional(seconds{1}) : std::nullopt;
}

void AttemptLimit::CountWrong(const std::string& address, SteadyTime now) {
  std::erase_if(failures_, [now](const auto& entry) {
    return now > entry.second.not_before + kForgottenAfter;
  });
  if (failures_.size() >= kMostAddresses && !failures_.contains(address)) {
    failures_.erase(std::ranges::min_element(
        failures_, {}, [](const auto& entry) { return entry.second.not_before; }));
  }
  Failures& failures = failures_[address];
  ++failures.count;
  const int doublings = std::clamp(failures.count - kFreeTries, 0, 6);
  const seconds wait = failures.count < kFreeTries ? seconds{0} : seconds{1 << doublings};
  failures.not_before = now + std::min(wait, kLongestWait);
}

std::string Sessions::Begin(SteadyTime now) {
  std::array<std::uint8_t, 16> random{};
  if (getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size())) {
    throw std::runtime_error("the system gives no random numbers");
  }
  std::erase_if(began_, [now](const auto& session) { return now - session.second > kLife; });
  if (began_.size() >= kMost) {
    began_.erase(
        std::ranges::min_element(began_, {}, [](const auto& session) { return session.second; }));
  }
  std::string token = tools::HexText(random, "", tools::kLowerHex);
  began_.emplace(token, now);
  return token;
}

bool Sessions::IsKnown(std::string_view token, SteadyTime now) const {
  const auto found = began_.find(token);
  return found != began_.end() && now - found->second <= kLife;
}

void Sessions::End(std::string_view token) {
  if (const auto found = began_.find(token); found != began_.end()) {
    began_.erase(found);
  }
}

}  // namespace kestrelbridge::console
