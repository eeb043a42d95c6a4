// Preloaded into a program: its wall clock stands where a file says. Everything else of its time
// goes on. The machine's own clock is never touched.
//
//   KESTRELBRIDGE_TEST_CLOCK   the file: milliseconds since 1970, 64 bits in the host's byte order

#include <fcntl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

namespace {

bool ReadSetTime(std::int64_t& milliseconds) {
  const char* path = std::getenv("KESTRELBRIDGE_TEST_CLOCK");
  const int file = path == nullptr ? -1 : open(path, O_RDONLY | O_CLOEXEC);
  const bool is_set = file != -1 && read(file, &milliseconds, sizeof milliseconds) ==
                                        static_cast<ssize_t>(sizeof milliseconds);
  close(file);
  return is_set;
}

}  // namespace

// The kernel is asked directly: the sanitizers have a clock_gettime of their own in between.
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  std::int64_t milliseconds = 0;
  if (clock != CLOCK_REALTIME || !ReadSetTime(milliseconds)) {
    return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
  }
  now->tv_sec = static_cast<time_t>(milliseconds / 1000);
  now->tv_nsec = static_cast<long>(milliseconds % 1000 * 1'000'000);
  return 0;
}
