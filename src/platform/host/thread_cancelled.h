// What unwinds a thread that is cancelled, for handlers that catch everything else: it must be
// thrown on, or the process ends.
//
//   } catch (ThreadCancelled&) {
//     throw;
//   } catch (...) {
#pragma once

#include <exception>  // defines __GLIBCXX__ where the standard library is GNU's

#if defined(__GLIBCXX__)
#include <cxxabi.h>
#endif

namespace qvdbase::platform {

#if defined(__GLIBCXX__)
using ThreadCancelled = abi::__forced_unwind;
#else
class ThreadCancelled {};  // nothing throws it
#endif

}  // namespace qvdbase::platform
