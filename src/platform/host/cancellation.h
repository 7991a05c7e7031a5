// Keeping a thread from being cancelled while it is inside a call of the library.
//
// Reads and writes of the host are points at which a thread can be cancelled: it would leave a
// change of the file half made, and a destructor that closes a descriptor would end the process. So
// cancellation waits until the call ends, or calls a function of the caller's.
// A process that has one thread pays nothing for it.
#pragma once

#include "platform/host/threads.h"

namespace qvdbase::platform {

#if defined(QVDBASE_NO_THREADS)

inline void holdCancellation() {}
inline void letCancellation() {}

#else

namespace detail {
struct CancellationState {
  int depth;   // of calls that keep it off
  int before;  // what it was before the outermost, or kUntouched
};
inline constexpr int kUntouched = -1;
extern constinit QVDBASE_PER_THREAD CancellationState cancellation;
int disableCancellation();
void restoreCancellation(int state);
}  // namespace detail

// Keeps it off until as many calls let it through again.
inline void holdCancellation() {
  detail::CancellationState& state = detail::cancellation;
  if (state.depth++ > 0) return;
  state.before = isOnlyThread() ? detail::kUntouched : detail::disableCancellation();
}
inline void letCancellation() {
  detail::CancellationState& state = detail::cancellation;
  if (--state.depth > 0 || state.before == detail::kUntouched) return;
  detail::restoreCancellation(state.before);
}

#endif

class Uncancelled {
 public:
  Uncancelled() { holdCancellation(); }
  ~Uncancelled() { letCancellation(); }
  Uncancelled(const Uncancelled&) = delete;
  Uncancelled& operator=(const Uncancelled&) = delete;
};

// While a function of the caller's runs, its thread is cancelled as it is outside of the library.
class CancellationPause {
 public:
  CancellationPause();
  ~CancellationPause();
  CancellationPause(const CancellationPause&) = delete;
  CancellationPause& operator=(const CancellationPause&) = delete;

 private:
#if !defined(QVDBASE_NO_THREADS)
  detail::CancellationState paused_;
#endif
};

}  // namespace qvdbase::platform
