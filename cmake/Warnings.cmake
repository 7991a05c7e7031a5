# qvdbase_warnings(TARGET): the warnings that all of our own code is held to.
function(qvdbase_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow
    $<$<BOOL:${QVDBASE_WERROR}>:-Werror>)
endfunction()
