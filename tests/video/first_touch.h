// A trap on a page of memory: tells what is touched first, and lets something happen just then.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <functional>
#include <utility>

namespace kestrelbridge::test {

// One at a time.
class FirstTouch {
 public:
  // Of the page that holds the address. `allowed` does not spring the trap: PROT_NONE or PROT_READ.
  FirstTouch(std::uint8_t* address, int allowed, std::function<void()> then)
      : size_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))),
        page_(address - reinterpret_cast<std::uintptr_t>(address) % size_),
        then_(std::move(then)) {
    armed = this;
    struct sigaction action {};
    action.sa_sigaction = OnFault;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGSEGV, &action, &before_);
    mprotect(page_, size_, allowed);
  }
  FirstTouch(const FirstTouch&) = delete;
  FirstTouch& operator=(const FirstTouch&) = delete;
  ~FirstTouch() {
    armed = nullptr;
    mprotect(page_, size_, PROT_READ | PROT_WRITE);
    sigaction(SIGSEGV, &before_, nullptr);
  }

  // Null: nothing yet.
  const std::uint8_t* address() const { return touched_; }

 private:
  static void OnFault(int /*signal*/, siginfo_t* fault, void* /*context*/) {
    FirstTouch* const trap = std::exchange(armed, nullptr);
    auto* const address = static_cast<std::uint8_t*>(fault->si_addr);
    if (trap == nullptr || address < trap->page_ || address >= trap->page_ + trap->size_) {
      std::signal(SIGSEGV, SIG_DFL);  // not ours: it happens again and ends the test
      return;
    }
    mprotect(trap->page_, trap->size_, PROT_READ | PROT_WRITE);
    trap->touched_ = address;
    trap->then_();
  }

  static inline FirstTouch* armed = nullptr;
  std::size_t size_;
  std::uint8_t* page_;
  std::function<void()> then_;
  const std::uint8_t* touched_ = nullptr;
  struct sigaction before_ {};
};

}  // namespace kestrelbridge::test
