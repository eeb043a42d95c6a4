// Tells the service manager (systemd) that started this process how it is, without its library: a
// datagram to the socket that the environment names.
#pragma once

#include <string_view>

namespace kestrelbridge {

// state: "READY=1", "WATCHDOG=1"; see sd_notify(3). Never waits. True when it was taken, or when
// nobody wants to know: NOTIFY_SOCKET is not set. Any thread, while none changes the environment.
bool NotifyService(std::string_view state);

}  // namespace kestrelbridge
