// Locks between the threads of this process.
//
// A lock is one number, and never destroyed: static objects of the application may still use the
// library. While the process has one thread, that number is written without the cost of excluding
// others; it is the same number, so that a thread that begins meanwhile finds the lock held.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/host/lock_order.h"
#include "platform/host/threads.h"

namespace qvdbase::platform {

class Lock {
 public:
  bool tryLock() {
    uint32_t found = kFree;
    if (!isOnlyThread()) {
      return state_.compare_exchange_strong(found, kHeld, std::memory_order_acquire,
                                            std::memory_order_relaxed);
    }
    if (state_.load(std::memory_order_relaxed) != kFree) return false;
    state_.store(kHeld, std::memory_order_relaxed);
    return true;
  }

  void lock() {
    if (!tryLock()) wait();
  }

  void unlock() {
    if (isOnlyThread()) {
      state_.store(kFree, std::memory_order_relaxed);
    } else if (state_.exchange(kFree, std::memory_order_release) == kAwaited) {
      state_.notify_one();
    }
  }

 private:
  enum State : uint32_t { kFree, kHeld, kAwaited };

  void wait();

  std::atomic<uint32_t> state_ = kFree;
};

// What all threads share, each with a lock of its own. Where one is taken while another is held,
// it comes later in this list, which is the end of that in lock_order.h. None is held during a call
// to the host that can take long, or while a function of the caller's runs.
enum class Shared : uint8_t {
  directoryCache,  // the engine's, with the exported list
  handles,         // file entries and file numbers
  identifiers,     // the generator
  callBuffers,     // those that no thread has
};
inline constexpr size_t kSharedThings = 4;

namespace detail {
extern constinit Lock sharedLocks[kSharedThings];

inline Held heldFor(Shared what) {
  return static_cast<Held>(static_cast<size_t>(Held::directoryCache) + static_cast<size_t>(what));
}
static_assert(static_cast<size_t>(Held::callBuffers) - static_cast<size_t>(Held::directoryCache) ==
              static_cast<size_t>(Shared::callBuffers));
}  // namespace detail

class SharedLock {
 public:
  explicit SharedLock(Shared what) : what_(what) {
    noteHeld(detail::heldFor(what));
    lock().lock();
  }
  ~SharedLock() {
    lock().unlock();
    noteGivenUp(detail::heldFor(what_));
  }
  SharedLock(const SharedLock&) = delete;
  SharedLock& operator=(const SharedLock&) = delete;

 private:
  Lock& lock() const { return detail::sharedLocks[static_cast<size_t>(what_)]; }

  Shared what_;
};

}  // namespace qvdbase::platform
