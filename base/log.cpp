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

// What a pipe has not yet taken of a line goes before anything else. Whoever sets tail_busy may
// touch the tail; the others do not wait, their line is dropped.
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

// True when no tail is left.
bool FinishTail() {
  // Acquire and release: the next holder sees the tail as this one left it.
  if (tail_busy.test_and_set(std::memory_order_acquire)) {
    return false;
  }
  const std::size_t taken = WriteNow({tail.data(), tail_size});
  tail_size -= taken;
  std::memmove(tail.data(), tail.data() + taken, tail_size);
  const bool done = tail_size == 0;
  has_tail.store(!done, std::memory_order_relaxed);
  tail_busy.clear(std::memory_order_release);
  return done;
}

// Two lines that are taken in part at the same moment: the later one stays cut.
void KeepTail(std::string_view rest) {
  if (tail_busy.test_and_set(std::memory_order_acquire)) {
    return;
  }
  if (tail_size == 0) {
    std::ranges::copy(rest, tail.begin());
    tail_size = rest.size();
    has_tail.store(true, std::memory_order_relaxed);
  }
  tail_busy.clear(std::memory_order_release);
}

// True when the text is on its way, whole.
bool Put(std::string_view text) {
  if (has_tail.load(std::memory_order_relaxed) && !FinishTail()) {
    return false;
  }
  std::string_view rest = text;
  while (const std::size_t taken = rest.empty() ? 0 : WriteNow(rest)) {
    rest.remove_prefix(taken);
  }
  if (rest.size() == text.size()) {
    return false;
  }
  if (!rest.empty()) {
    KeepTail(rest);
  }
  return true;
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
