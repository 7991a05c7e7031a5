// Included first by each header of the C++ layer. A compiler set to an older standard reports this
// error, and not the first construct that it does not know.
#pragma once

#if __cplusplus < 202002L
#error \
    "qvdb.hpp needs C++20: compile with -std=c++20 (CMake: target_compile_features(... cxx_std_20))"
#endif
