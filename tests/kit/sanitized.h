// Whether the tests run under the address sanitizer, which takes memory of its own.
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

}  // namespace qvdbase::test
