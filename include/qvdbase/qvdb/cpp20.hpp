// Included first by each header of the C++ layer: says what the layer needs before a compiler with
// an older standard reports the first thing that it does not know.
#ifndef QVDBASE_QVDB_CPP20_HPP
#define QVDBASE_QVDB_CPP20_HPP

#if __cplusplus < 202002L
#error \
    "qvdb.hpp needs C++20: compile with -std=c++20 (CMake: target_compile_features(... cxx_std_20))"
#endif

#endif
