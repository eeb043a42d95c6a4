// The path of a datagram, from the socket to the ring, allocates nothing and takes no lock.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "kestrelbridge/frame_block.h"
#include "session/camera_session.h"
#include "support/camera_datagrams.h"
#include "support/peer_socket.h"
#include "video/frame_buffers.h"

namespace {

std::atomic<bool> counting{false};
std::atomic<int> allocations{0};
std::atomic<int> locks{0};

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
  if (counting) {
    ++allocations;
  }
  if (void* memory = std::malloc(size)) {
    return memory;
  }
  throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  if (counting) {
    ++allocations;
  }
  return std::malloc(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define KESTRELBRIDGE_COUNTS_LOCKS 1
// Stands before the C library's; the sanitizers want that place for themselves.
extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  using Lock = int (*)(pthread_mutex_t*);
  static const auto real = reinterpret_cast<Lock>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
  if (counting) {
    ++locks;
  }
  return real(mutex);
}
#endif

namespace kestrelbridge::test {
namespace {

TEST(DatagramPath, AllocatesNothingAndTakesNoLock) {
  PeerSocket camera;
  BeCameraAt(camera);
  ASSERT_EQ(InitFrameBuffers(), 0);
  std::vector<Bytes> datagrams;
  for (std::uint32_t unit = 0; unit < 300; ++unit) {
    for (Bytes& datagram : UnitDatagrams(1, MakeUnit(20'000, unit))) {
      datagrams.push_back(std::move(datagram));
    }
    datagrams.push_back(CommandDataDatagram(2, EmptyCommandData()));
  }
  OnCameraDatagram(datagrams.front(), "127.0.0.1", 1);

  counting = true;
  for (std::size_t i = 1; i < datagrams.size(); ++i) {
    OnCameraDatagram(datagrams[i], "127.0.0.1", 1);
  }
  counting = false;

  FrameBlockMapping ring;
  ASSERT_TRUE(ring.Open());
  EXPECT_EQ(LoadShared16(ring.data() + kLastSequenceOffset, __ATOMIC_ACQUIRE), 298);
  EXPECT_TRUE(camera.Receive()) << "the acknowledgements were sent, too";
  EXPECT_EQ(allocations, 0);
  EXPECT_EQ(locks, 0);

  counting = true;  // the counters do count
  ::operator delete(::operator new(4));
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_mutex_lock(&mutex);
  counting = false;
  EXPECT_EQ(allocations, 1);
#ifdef KESTRELBRIDGE_COUNTS_LOCKS
  EXPECT_EQ(locks, 1);
#endif
}

}  // namespace
}  // namespace kestrelbridge::test
