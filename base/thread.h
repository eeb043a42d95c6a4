// Threads of the daemon: started once, never joined, named so that `top -H` tells who works.
#pragma once

#include <pthread.h>

namespace kestrelbridge {

// Starts a thread with default attributes that runs body(argument), without root's powers over the
// network (base/capabilities.h): threads are what parses bytes from outside.
// `name` is at most 15 characters. Returns 0, or -1 when the system has no
// thread left; errno says why.
[[nodiscard]] int StartThread(pthread_t* thread, const char* name, void* (*body)(void*),
                              void* argument);

}  // namespace kestrelbridge
