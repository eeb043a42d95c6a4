#include "base/thread.h"

#include <cerrno>
#include <memory>
#include <new>

#include "base/capabilities.h"

namespace kestrelbridge {
namespace {

struct Start {
  void* (*body)(void*);
  void* argument;
};

void* RunThread(void* argument) {
  const Start start = *std::unique_ptr<Start>(static_cast<Start*>(argument));
  DropNetworkCapabilities();
  return start.body(start.argument);
}

}  // namespace

int StartThread(pthread_t* thread, const char* name, void* (*body)(void*), void* argument) {
  auto* start = new (std::nothrow) Start{.body = body, .argument = argument};
  if (start == nullptr) {
    return -1;
  }
  if (const int error = pthread_create(thread, nullptr, RunThread, start); error != 0) {
    delete start;
    errno = error;
    return -1;
  }
  pthread_setname_np(*thread, name);
  return 0;
}

}  // namespace kestrelbridge
