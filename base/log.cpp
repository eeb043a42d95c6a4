#include "base/log.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <span>
#include <string_view>

#include "base/counters.h"

namespace kestrelbridge {
namespace {

constexpr std::size_t kLongestLine = 12'288;
constexpr std::size_t kMaskedSize = 4;  // "\x1b" for one character
constexpr std::size_t kNoticeSize = 64;
constexpr std::size_t kLongestMasked = kLongestLine * kMaskedSize + kNoticeSize;

// How not to wait. O_NONBLOCK belongs to an open file, which we share with whoever started us: it
// is set on a file opened anew, or not at all.
enum class Outlet {
  kWaiting,    // as descriptor 2 is; regular files, which are never full, stay so
  kOpenedNew,  // pipes and terminals, with O_NONBLOCK
  kSocket,     // the journal; said with each message
  kPolled,     // a pipe or terminal that we may not open: asked for room first
};

// Set by OpenLog, before there are other threads.
constinit Outlet outlet = Outlet::kWaiting;
constinit int descriptor = STDERR_FILENO;

// Since the last line that got through.
constinit std::atomic<std::uint32_t> missing{0};

// What standard error has not yet taken of a line goes before anything else. Whoever has set
// tail_busy may touch the tail. The others try for some microseconds, then their line is dropped.
constinit std::atomic_flag tail_busy{};
constinit std::atomic<bool> has_tail{false};
constinit std::array<char, kLongestMasked> tail{};
constinit std::size_t tail_size = 0;

// The bytes that standard error took, 0 when it is full. What fails for good counts as taken: there
// is nobody who could be told.
std::size_t WriteNow(std::string_view text) {
  if (outlet == Outlet::kPolled) {
    pollfd room{.fd = descriptor, .events = POLLOUT, .revents = 0};
    if (poll(&room, 1, 0) == 0) {
      return 0;
    }
    text = text.substr(0, PIPE_BUF);  // so much fits without waiting when anything does
  }
  const ssize_t taken = outlet == Outlet::kSocket ? send(descriptor, text.data(), text.size(),
                                                         MSG_DONTWAIT | MSG_NOSIGNAL)
                                                  : write(descriptor, text.data(), text.size());
  if (taken >= 0) {
    return static_cast<std::size_t>(taken);
  }
  return errno == EAGAIN || errno == ENOBUFS || errno == EINTR ? 0 : text.size();
}

// Acquire and release: the next holder finds the tail as this one left it.
bool HoldTail() {
  constexpr int kTries = 1000;
  for (int i = 0; i < kTries; ++i) {
    if (!tail_busy.test_and_set(std::memory_order_acquire)) {
      return true;
    }
  }
  return false;
}

void ReleaseTail() {
  has_tail.store(tail_size != 0, std::memory_order_relaxed);
  tail_busy.clear(std::memory_order_release);
}

// What is left of the text when standard error is full.
std::string_view WriteUntilFull(std::string_view text) {
  while (const std::size_t taken = text.empty() ? 0 : WriteNow(text)) {
    text.remove_prefix(taken);
  }
  return text;
}

// The holder's. True when no tail is left.
bool FinishTail() {
  const std::string_view rest = WriteUntilFull({tail.data(), tail_size});
  std::memmove(tail.data(), rest.data(), rest.size());
  tail_size = rest.size();
  return tail_size == 0;
}

// The holder's, with no tail left.
void KeepTail(std::string_view rest) {
  std::ranges::copy(rest, tail.begin());
  tail_size = rest.size();
}

// True when the text is on its way, whole.
bool PutBehindTail(std::string_view text) {
  if (!HoldTail()) {
    return false;
  }
  bool put = FinishTail();
  if (put) {
    const std::string_view rest = WriteUntilFull(text);
    put = rest.size() < text.size();
    if (put) {
      KeepTail(rest);
    }
  }
  ReleaseTail();
  return put;
}

// The same. A write is whole unless standard error gets full in it; of two lines that are cut at
// the same moment the later one stays so.
bool Put(std::string_view text) {
  if (outlet == Outlet::kPolled || has_tail.load(std::memory_order_relaxed)) {
    return PutBehindTail(text);
  }
  const std::string_view rest = WriteUntilFull(text);
  if (!rest.empty() && rest.size() < text.size() && HoldTail()) {
    if (tail_size == 0) {
      KeepTail(rest);
    }
    ReleaseTail();
  }
  return rest.size() < text.size();
}

// The bytes of the control character at the text's start, 0 when there is none that must be masked.
// Those from 0x80 to 0x9F, which some terminals obey, have two bytes in UTF-8.
std::size_t ControlLength(std::string_view text) {
  const auto first = static_cast<unsigned char>(text[0]);
  if (first == 0xC2 && text.size() > 1) {
    const auto second = static_cast<unsigned char>(text[1]);
    return second >= 0x80 && second <= 0x9F ? 2 : 0;
  }
  const bool is_layout = first == '\t' || first == '\n' || first == '\r';
  return (first < 0x20 && !is_layout) || first == 0x7F ? 1 : 0;
}

// Returns the size of the masked text. Precondition: masked has room for four times the text.
std::size_t MaskControls(std::string_view text, std::span<char> masked) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::size_t size = 0;
  while (!text.empty()) {
    const std::size_t control = ControlLength(text);
    for (const char character : text.substr(0, control)) {
      const auto byte = static_cast<unsigned char>(character);
      const char spelled[kMaskedSize] = {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 0x0F]};
      std::ranges::copy(spelled, &masked[size]);
      size += kMaskedSize;
    }
    if (control == 0) {
      masked[size++] = text[0];
    }
    text.remove_prefix(std::max<std::size_t>(control, 1));
  }
  return size;
}

Outlet OutletOf(mode_t mode) {
  if (S_ISREG(mode)) {
    return Outlet::kWaiting;
  }
  return S_ISSOCK(mode) ? Outlet::kSocket : Outlet::kPolled;
}

}  // namespace

void OpenLog() {
  struct stat status {};
  if (fstat(STDERR_FILENO, &status) != 0) {
    return;
  }
  outlet = OutletOf(status.st_mode);
  if (outlet != Outlet::kPolled) {
    return;
  }
  constexpr int kFlags = O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  if (const int opened = open("/proc/self/fd/2", kFlags); opened != -1) {
    outlet = Outlet::kOpenedNew;
    descriptor = opened;
  }
}

void Log(const char* format, ...) {
  char line[kLongestLine];
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  if (length < 0) {
    return;
  }
  const std::size_t size = std::min(static_cast<std::size_t>(length), sizeof line - 1);

  char text[kLongestMasked];
  std::size_t notice = 0;
  const std::uint32_t absent = missing.exchange(0, std::memory_order_relaxed);
  if (absent != 0) {
    notice = static_cast<std::size_t>(
        std::snprintf(text, kNoticeSize, "(%u lines of the log are missing here)\n", absent));
  }
  const std::size_t masked = MaskControls({line, size}, std::span(text).subspan(notice));
  if (!Put({text, notice + masked})) {
    missing.fetch_add(absent + 1, std::memory_order_relaxed);
    GetCounters().log_lines_dropped.Add();
  }
}

}  // namespace kestrelbridge
