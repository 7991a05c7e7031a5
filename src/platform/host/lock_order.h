// The order in which a thread takes what other threads may wait for, checked in debug builds.
//
// Where every thread takes what it needs in one order, no circle of threads can wait for one
// another. The turns of files (handles/turns.h) come before everything in this list. Between
// processes the bytes after a file follow it too: see handles/lock_bytes.h.
#pragma once

#include <cassert>
#include <cstdint>

#include "platform/host/threads.h"

namespace qvdbase::platform {

// Outermost first.
enum class Held : uint8_t {
  change,      // of a file, or a look through a view that excludes changes (handles/file_views.h)
  changeByte,  // the lock of changes and looks (handles/lock_bytes.h)
  directoryCache,  // and what else all threads share (lock.h)
  handles,
  identifiers,
  callBuffers,
};

#if defined(NDEBUG)

inline void noteHeld(Held) {}
inline void noteHeldAgain(Held) {}
inline void noteGivenUp(Held) {}

#else

namespace detail {
extern constinit QVDBASE_PER_THREAD uint32_t heldByThread;  // a bit for each
}  // namespace detail

// Whether this thread holds nothing that comes after `what`, nor that itself.
inline bool mayTake(Held what) {
  return detail::heldByThread >> static_cast<uint32_t>(what) == 0;
}

inline bool isHeld(Held what) {
  return (detail::heldByThread >> static_cast<uint32_t>(what) & 1) != 0;
}

// To be called before it is waited for.
inline void noteHeld(Held what) {
  assert(mayTake(what) && "locks are taken in the wrong order");
  detail::heldByThread |= 1u << static_cast<uint32_t>(what);
}

// The same for what is not waited for, and may be held already.
inline void noteHeldAgain(Held what) {
  assert(detail::heldByThread >> (static_cast<uint32_t>(what) + 1) == 0 &&
         "locks are taken in the wrong order");
  detail::heldByThread |= 1u << static_cast<uint32_t>(what);
}

inline void noteGivenUp(Held what) {
  detail::heldByThread &= ~(1u << static_cast<uint32_t>(what));
}

#endif

}  // namespace qvdbase::platform
