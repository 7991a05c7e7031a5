// Waiting for a lock, and what becomes of the locks in a process that is made by fork.
#include "platform/host/lock.h"

#include <pthread.h>

namespace qvdbase::platform {

constinit Lock detail::sharedLocks[kSharedThings] = {};
#if !defined(NDEBUG)
constinit QVDBASE_PER_THREAD uint32_t detail::heldByThread = 0;
#endif

// Whoever has waited leaves the lock as one that others may wait for: it does not know.
void Lock::wait() {
  while (state_.exchange(kAwaited, std::memory_order_acquire) != kFree) {
    state_.wait(kAwaited, std::memory_order_relaxed);
  }
}

#if !defined(QVDBASE_NO_THREADS)
namespace {

// Of the threads a child has only the one that has called fork. So that this one finds what is
// shared complete, and no lock held by a thread that it does not have, fork waits for the locks.
void lockAll() {
  for (Lock& lock : detail::sharedLocks) lock.lock();
}

void unlockAll() {
  for (Lock& lock : detail::sharedLocks) lock.unlock();
}

[[maybe_unused]] const int areHeldDuringFork = ::pthread_atfork(lockAll, unlockAll, unlockAll);

}  // namespace
#endif

}  // namespace qvdbase::platform
