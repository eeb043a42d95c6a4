// Waiting for a condition, with a deadline: the only way in which tests wait.
#pragma once

#include <chrono>
#include <cstdlib>
#include <thread>

namespace kestrelbridge::test {

// How long a test waits for what should happen at once. Generous, because machines are slow and
// busy and a deadline that is met costs nothing; KESTRELBRIDGE_DEADLINE_FACTOR multiplies it.
inline std::chrono::milliseconds Patience() {
  constexpr std::chrono::duration<double> kPatience{30};
  const char* text = std::getenv("KESTRELBRIDGE_DEADLINE_FACTOR");
  const double factor = text == nullptr ? 1 : std::atof(text);
  return std::chrono::duration_cast<std::chrono::milliseconds>(kPatience *
                                                               (factor > 0 ? factor : 1));
}

// Asks every few milliseconds until the condition holds. Returns false when it still does not at
// the deadline.
template <typename Condition>
bool Eventually(Condition condition, std::chrono::milliseconds patience = Patience()) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return condition();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds{2});
  }
  return true;
}

}  // namespace kestrelbridge::test
