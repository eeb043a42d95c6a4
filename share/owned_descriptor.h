// A descriptor that closes itself when it goes.
#pragma once

#include <unistd.h>

#include <utility>

namespace kestrelbridge::share {

class OwnedDescriptor {
 public:
  OwnedDescriptor() = default;
  explicit OwnedDescriptor(int descriptor) : descriptor_(descriptor) {}
  ~OwnedDescriptor() {
    if (descriptor_ != -1) {
      close(descriptor_);
    }
  }
  OwnedDescriptor(OwnedDescriptor&& other) noexcept
      : descriptor_(std::exchange(other.descriptor_, -1)) {}
  OwnedDescriptor& operator=(OwnedDescriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  OwnedDescriptor(const OwnedDescriptor&) = delete;
  OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;

  [[nodiscard]] int get() const { return descriptor_; }

 private:
  int descriptor_ = -1;
};

}  // namespace kestrelbridge::share
