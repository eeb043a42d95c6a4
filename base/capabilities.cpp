#include "base/capabilities.h"

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdint>

namespace kestrelbridge {

// The C library has no function for this. The kernel takes the capabilities in words of 32, and the
// thread's own for process 0.
void DropNetworkCapabilities() {
  constexpr std::uint32_t kDropped = 1U << CAP_NET_ADMIN | 1U << CAP_NET_RAW;
  __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> words{};
  if (syscall(SYS_capget, &header, words.data()) != 0) {
    return;
  }
  words[0].effective &= ~kDropped;
  words[0].permitted &= ~kDropped;
  words[0].inheritable &= ~kDropped;  // and with them the ambient ones
  // To have less is always allowed.
  syscall(SYS_capset, &header, words.data());
}

}  // namespace kestrelbridge
