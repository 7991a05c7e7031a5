// Whether a thread can be cancelled.
#include "platform/host/cancellation.h"

#if !defined(QVDBASE_NO_THREADS)

#include <pthread.h>

#include <utility>

namespace qvdbase::platform {

constinit QVDBASE_PER_THREAD detail::CancellationState detail::cancellation = {};

int detail::disableCancellation() {
  int before = PTHREAD_CANCEL_ENABLE;
  ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
  return before;
}

void detail::restoreCancellation(int state) {
  int ignored = 0;
  ::pthread_setcancelstate(state, &ignored);
}

CancellationPause::CancellationPause() : paused_(std::exchange(detail::cancellation, {})) {
  if (paused_.depth > 0 && paused_.before != detail::kUntouched) {
    detail::restoreCancellation(paused_.before);
  }
}

// Whatever threads there were before: the function may have started one, or cancelled its own.
CancellationPause::~CancellationPause() {
  detail::cancellation = paused_;
  if (paused_.depth > 0) detail::cancellation.before = detail::disableCancellation();
}

}  // namespace qvdbase::platform

#else

namespace qvdbase::platform {

CancellationPause::CancellationPause() {}
CancellationPause::~CancellationPause() {}

}  // namespace qvdbase::platform

#endif
