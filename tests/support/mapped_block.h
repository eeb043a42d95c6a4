// A shared-memory block as another process sees it: a mapping of its own, to look at and to spoil.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <span>
#include <system_error>

namespace kestrelbridge::test {

class MappedBlock {
 public:
  // Throws, and so fails the test, when there is no such block.
  explicit MappedBlock(const char* name) {
    const int descriptor = shm_open(name, O_RDWR | O_CLOEXEC, 0);
    struct stat status {};
    if (descriptor != -1 && fstat(descriptor, &status) == 0) {
      size_ = static_cast<std::size_t>(status.st_size);
      mode_ = status.st_mode & 07777;
      mapped_ = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    }
    const int reason = errno;
    close(descriptor);
    if (mapped_ == MAP_FAILED) {
      throw std::system_error(reason, std::generic_category(), name);
    }
  }
  MappedBlock(const MappedBlock&) = delete;
  MappedBlock& operator=(const MappedBlock&) = delete;
  ~MappedBlock() { munmap(mapped_, size_); }

  std::uint8_t* data() const { return static_cast<std::uint8_t*>(mapped_); }
  std::span<std::uint8_t> bytes() const { return {data(), size_}; }
  mode_t mode() const { return mode_; }

 private:
  void* mapped_ = MAP_FAILED;
  std::size_t size_ = 0;
  mode_t mode_ = 0;
};

}  // namespace kestrelbridge::test
