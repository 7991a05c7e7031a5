// Threads: whether there can be others, and what each of them has for itself.
//
// QVDBASE_NO_THREADS leaves both out, for hosts without threads: the library is then used from one
// thread only.
#pragma once

#include <cstdint>

#if __has_include(<sys/single_threaded.h>)
#include <sys/single_threaded.h>
#define QVDBASE_HOST_COUNTS_THREADS 1
#endif

// A variable of which each thread has its own. Such variables are few and small: where the host
// allows it they have a fixed place, found without a call.
#if defined(QVDBASE_NO_THREADS)
#define QVDBASE_PER_THREAD
#elif defined(__GLIBC__)
#define QVDBASE_PER_THREAD thread_local __attribute__((tls_model("initial-exec")))
#else
#define QVDBASE_PER_THREAD thread_local
#endif

namespace qvdbase::platform {

// Whether this thread is known to be the only one of its process. Another one can begin where a
// function of the caller's runs, and nowhere else.
inline bool isOnlyThread() {
#if defined(QVDBASE_NO_THREADS)
  return true;
#elif defined(QVDBASE_HOST_COUNTS_THREADS)
  return __libc_single_threaded != 0;
#else
  return false;
#endif
}

}  // namespace qvdbase::platform
