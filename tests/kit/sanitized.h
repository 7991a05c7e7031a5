// Whether the tests run under the address sanitizer, which takes memory of its own, or under the
// thread sanitizer.
#pragma once

namespace qvdbase::test {

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QVDBASE_IS_SANITIZED
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define QVDBASE_IS_SANITIZED
#endif
#if defined(QVDBASE_IS_SANITIZED)
inline constexpr bool kIsSanitized = true;
#else
inline constexpr bool kIsSanitized = false;
#endif

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QVDBASE_THREADS_ARE_WATCHED
#endif
#elif defined(__SANITIZE_THREAD__)
#define QVDBASE_THREADS_ARE_WATCHED
#endif
#if defined(QVDBASE_THREADS_ARE_WATCHED)
inline constexpr bool kThreadsAreWatched = true;
#else
inline constexpr bool kThreadsAreWatched = false;
#endif

}  // namespace qvdbase::test
