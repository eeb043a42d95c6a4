#include "base/shared_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

namespace kestrelbridge {
namespace {

constexpr mode_t kBlockMode = 0600;

SharedBlock Fail(int descriptor, const char* step, int error) {
  close(descriptor);
  return {.failed_step = step, .error = error};
}

}  // namespace

int OpenSharedBlock(const char* name) { return shm_open(name, O_RDWR, kBlockMode); }

int OpenOrCreateSharedBlock(const char* name) {
  const int descriptor = OpenSharedBlock(name);
  return descriptor != -1 ? descriptor : shm_open(name, O_RDWR | O_CREAT, kBlockMode);
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
