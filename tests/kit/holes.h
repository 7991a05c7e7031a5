// Whether the library that is tested can ask the host for holes in files.
#pragma once

namespace qvdbase::test {

#if defined(__linux__) && !defined(QVDBASE_PORTABLE_POSIX)
inline constexpr bool kCanMakeHoles = true;
#else
inline constexpr bool kCanMakeHoles = false;
#endif

}  // namespace qvdbase::test
