#include "base/shared_memory.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"

namespace kestrelbridge {
namespace {

constexpr mode_t kBlockMode = 0600;
constexpr int kMaxAttempts = 4;

std::string PathOf(const char* name) { return std::string("/dev/shm/") + name; }

bool IsTrusted(const struct stat& status) {
  return S_ISREG(status.st_mode) && (status.st_uid == geteuid() || status.st_uid == 0);
}

// "it is a symbolic link of user pi (1000)"
std::string Describe(const struct stat& status) {
  const char* const kind = S_ISLNK(status.st_mode)   ? "it is a symbolic link of"
                           : S_ISREG(status.st_mode) ? "it belongs to"
                                                     : "it is no plain file and belongs to";
  const passwd* const owner = getpwuid(status.st_uid);
  return std::string(kind) + " user " + (owner != nullptr ? owner->pw_name : "?") + " (" +
         std::to_string(status.st_uid) + ")";
}

struct flock WholeFile() {
  struct flock range {};
  range.l_type = F_WRLCK;
  range.l_whence = SEEK_SET;
  return range;
}

// A lock of the other kind tells whose it is, to every user and in every sandbox; but it would go
// with any descriptor of the block that the process closes.
void LeaveProcessNumber(int descriptor) {
  const struct flock note = WholeFile();
  fcntl(descriptor, F_SETLK, &note);
}

pid_t HolderOf(int descriptor) {
  struct flock note = WholeFile();
  const bool is_known = fcntl(descriptor, F_GETLK, &note) == 0 && note.l_type != F_UNLCK;
  return is_known ? note.l_pid : 0;
}

// Whether a process publishes into what this user may open there.
bool IsTaken(const char* name, pid_t& holder) {
  const int descriptor = OpenSharedBlock(name);
  if (descriptor == -1) {
    return false;
  }
  const bool is_taken = !TakeBlock(descriptor, holder);
  close(descriptor);
  return is_taken;
}

std::string PublishesHere(pid_t holder) {
  return "another kestrelbridge (process " + std::to_string(holder) + ") publishes here";
}

SharedBlock Fail(int descriptor, const char* step, int error) {
  close(descriptor);
  return {.failed_step = step, .error = error};
}

}  // namespace

int OpenSharedBlock(const char* name) { return shm_open(name, O_RDWR, kBlockMode); }

OwnBlock OpenOwnBlock(const char* name) {
  // Again after a removal, or when somebody made or removed it between two looks.
  for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
    struct stat found {};
    if (lstat(PathOf(name).c_str(), &found) != 0) {
      const int created = shm_open(name, O_RDWR | O_CREAT | O_EXCL, kBlockMode);
      if (created != -1 || errno != EEXIST) {
        return {.descriptor = created, .problem = created == -1 ? std::strerror(errno) : ""};
      }
      continue;
    }
    if (!IsTrusted(found)) {
      if (pid_t holder = 0; IsTaken(name, holder)) {  // not under its hands
        return {.problem = PublishesHere(holder)};
      }
      const std::string problem = Describe(found);
      if (shm_unlink(name) != 0 && errno != ENOENT) {
        return {.problem = problem};
      }
      Log("Shared memory %s removed, since %s\n", PathOf(name).c_str(), problem.c_str());
      continue;
    }
    const int descriptor = OpenSharedBlock(name);
    if (descriptor == -1) {
      return {.problem = std::strerror(errno)};
    }
    if (struct stat opened{}; fstat(descriptor, &opened) == 0 && IsTrusted(opened)) {
      return {.descriptor = descriptor};
    }
    close(descriptor);
  }
  return {.problem = "somebody replaces it all the time"};
}

void CloseToOthers(int descriptor) {
  struct stat status {};
  if (fstat(descriptor, &status) == 0 && (status.st_mode & S_IRWXO) != 0) {
    fchmod(descriptor, status.st_mode & ALLPERMS & ~S_IRWXO);
  }
}

bool TakeBlock(int descriptor, pid_t& holder) {
  if (flock(descriptor, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK) {
    LeaveProcessNumber(descriptor);
    return true;
  }
  holder = HolderOf(descriptor);
  return false;
}

pid_t HolderOfBlock(const char* name) {
  const int descriptor = shm_open(name, O_RDONLY | O_NOFOLLOW, 0);
  if (descriptor == -1) {
    return 0;
  }
  const pid_t holder = HolderOf(descriptor);
  close(descriptor);
  return holder;
}

void LeaveBlock(int descriptor) {
  flock(descriptor, LOCK_UN);
  close(descriptor);
}

SharedBlock MapSharedBlock(int descriptor, std::size_t size) {
  const auto length = static_cast<off_t>(size);
  if (const int error = posix_fallocate(descriptor, 0, length); error != 0) {
    return Fail(descriptor, "reserve", error);
  }
  if (ftruncate(descriptor, length) != 0) {
    return Fail(descriptor, "size", errno);
  }
  void* mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  if (mapped == MAP_FAILED) {
    return Fail(descriptor, "map", errno);
  }
  return {.descriptor = descriptor, .bytes = static_cast<std::uint8_t*>(mapped)};
}

}  // namespace kestrelbridge
