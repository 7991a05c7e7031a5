# qvdbase_warnings(TARGET): the warnings that all of our own code is held to. For clang -Wconversion
# includes signs; GCC wants them named.
function(qvdbase_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow
    $<$<BOOL:${QVDBASE_WERROR}>:-Werror>)
endfunction()
