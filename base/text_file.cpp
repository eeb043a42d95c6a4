#include "base/text_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

namespace kestrelbridge {
namespace {

// Other users' programs read these files: so it is for us to say, not for the umask.
constexpr mode_t kReadableForAll = 0644;

// Who may write the folder may put anything in a file's place. A link would lead us to a file that
// is not his to touch, a FIFO would keep us waiting, a second name would be another file's. Returns
// -1 for what is no plain file.
int OpenPlainFile(const char* path, int flags, mode_t mode = 0) {
  const int file = open(path, flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode);
  if (file == -1) {
    return -1;
  }
  struct stat status {};
  if (fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1) {
    return file;
  }
  close(file);
  return -1;
}

// Whatever stood there goes.
int CreateAnew(const char* path) {
  unlink(path);
  return OpenPlainFile(path, O_WRONLY | O_CREAT | O_EXCL, kReadableForAll);
}

bool WriteWhole(int file, std::string_view text) {
  return write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

}  // namespace

int WriteTextFile(const char* path, std::string_view text) {
  const int file = OpenPlainFile(path, O_WRONLY | O_CREAT, kReadableForAll);
  if (file == -1) {
    return -1;
  }
  // Of another user's file the mode is his to choose.
  [[maybe_unused]] const bool opened_to_all = fchmod(file, kReadableForAll) == 0;
  // A full disk shows as a short file; no retry.
  [[maybe_unused]] const bool written = ftruncate(file, 0) == 0 && WriteWhole(file, text);
  close(file);
  return 0;
}

int ReplaceTextFile(const char* path, std::string_view text) {
  const std::string beside = std::string(path) + ".tmp";
  const int file = CreateAnew(beside.c_str());
  if (file == -1) {
    return -1;
  }
  const bool opened_to_all = fchmod(file, kReadableForAll) == 0;
  const bool written = WriteWhole(file, text);
  const bool closed = close(file) == 0;  // where a full disk may show
  if (opened_to_all && written && closed && std::rename(beside.c_str(), path) == 0) {
    return 0;
  }
  unlink(beside.c_str());
  return -1;
}

void ReadTextFile(const char* path, std::span<char> text) {
  std::ranges::fill(text, '\0');
  const int file = OpenPlainFile(path, O_RDONLY);
  if (file == -1) {
    return;
  }
  std::span<char> rest = text.first(text.size() - 1);
  for (ssize_t count = 0; (count = read(file, rest.data(), rest.size())) > 0;) {
    rest = rest.subspan(static_cast<std::size_t>(count));
  }
  close(file);
}

}  // namespace kestrelbridge
