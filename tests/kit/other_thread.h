// The second thread of a test program that has one (busy_thread_main.cpp): it works in the library
// all the time, but not while a test has other host calls in the place of the real ones.
#pragma once

#include <shared_mutex>

#include "platform/host/system_calls.h"

namespace qvdbase::test {

// The second thread has it, shared, while it works.
inline std::shared_mutex& realHost() {
  static std::shared_mutex mutex;
  return mutex;
}

// As platform::replaceSystemCalls; null ends what another table has begun.
inline void replaceHostCalls(const platform::SystemCalls* calls) {
  if (calls != nullptr) realHost().lock();
  platform::replaceSystemCalls(calls);
  if (calls == nullptr) realHost().unlock();
}

}  // namespace qvdbase::test
