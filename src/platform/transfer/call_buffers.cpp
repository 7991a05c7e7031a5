// The buffers that no thread has, and their way back from a thread that ends.
#include "platform/transfer/call_buffers.h"

#include <algorithm>

#include "platform/host/lock.h"
#include "platform/host/memory.h"
#include "platform/transfer/call_state.h"

#if !defined(QVDBASE_NO_THREADS)
#include <pthread.h>

#include <atomic>
#endif

namespace qvdbase::platform {
namespace {

// Those that are part of the library: memory of them is used once they are. Further threads get
// theirs from the host.
constexpr size_t kOwn = 8;
constinit CallBuffers ownBuffers[kOwn] = {};
constinit bool isTaken[kOwn] = {};  // under Shared::callBuffers

CallBuffers* take() {
  {
    const SharedLock lock(Shared::callBuffers);
    bool* taken = std::find(isTaken, isTaken + kOwn, false);
    if (taken != isTaken + kOwn) {
      *taken = true;
      return &ownBuffers[taken - isTaken];
    }
  }
  return static_cast<CallBuffers*>(allocate(sizeof(CallBuffers)));
}

void giveBack(void* given) {
  auto* buffers = static_cast<CallBuffers*>(given);
  callState().loseBuffers();  // what still runs at the thread's end may begin another scope
  const auto* own = std::find_if(ownBuffers, ownBuffers + kOwn,
                                 [buffers](const CallBuffers& each) { return &each == buffers; });
  if (own == ownBuffers + kOwn) return release(buffers);
  const SharedLock lock(Shared::callBuffers);
  isTaken[own - ownBuffers] = false;
}

#if defined(QVDBASE_NO_THREADS)
bool giveBackAtEnd(CallBuffers*) {
  return true;
}
#else
// By a key of the host's, whose functions are called for a thread that ends. It is given up with
// the library, which may be unloaded while threads go on. What they ask outlives the object that
// gives it up: where the process ends, they may still be at work.
constinit pthread_key_t endOfThread = {};
constinit std::atomic<bool> isEndOfThreadKnown = false;

struct EndOfThread {
  EndOfThread() { isEndOfThreadKnown = ::pthread_key_create(&endOfThread, giveBack) == 0; }
  ~EndOfThread() {
    if (isEndOfThreadKnown.exchange(false)) ::pthread_key_delete(endOfThread);
  }
};

bool giveBackAtEnd(CallBuffers* buffers) {
  static const EndOfThread withLibrary;
  return isEndOfThreadKnown && ::pthread_setspecific(endOfThread, buffers) == 0;
}
#endif

}  // namespace

CallBuffers* buffersForThread() {
  CallBuffers* buffers = take();
  if (buffers == nullptr || giveBackAtEnd(buffers)) return buffers;
  giveBack(buffers);
  return nullptr;
}

}  // namespace qvdbase::platform
