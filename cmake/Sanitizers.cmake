# With QVDBASE_SANITIZE_THREADS every target runs under the thread sanitizer: two threads that use
# one place in memory, without anything that puts one before the other, end the process.
if(QVDBASE_SANITIZE_THREADS)
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
  link_libraries($<$<LINK_LANG_AND_ID:C,Clang>:stdc++>)
endif()
# With QVDBASE_SANITIZE every target of the build, tests included, runs under the address and
# undefined-behaviour sanitizers; a finding ends the process.
if(QVDBASE_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
  # A frame that is used after its function has returned is a finding too: clang++ builds that in,
  # g++ leaves it to the environment (the tests set ASAN_OPTIONS).
  add_compile_options($<$<CXX_COMPILER_ID:Clang>:-fsanitize-address-use-after-return=always>)
  # The code that the sanitizers insert leads this one warning of GCC astray; builds without them
  # keep it.
  add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  # A program in C that uses the library needs the runtime for C++ too.
  add_link_options($<$<LINK_LANG_AND_ID:C,Clang>:-fsanitize-link-c++-runtime>)
  link_libraries($<$<LINK_LANG_AND_ID:C,Clang>:stdc++>)
endif()
