#include "base/thread.h"

namespace kestrelbridge {

int StartThread(pthread_t* thread, const char* name, void* (*body)(void*), void* argument) {
  if (pthread_create(thread, nullptr, body, argument) != 0) {
    return -1;
  }
  pthread_setname_np(*thread, name);
  return 0;
}

}  // namespace kestrelbridge
