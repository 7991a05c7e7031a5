# qvdbase_hardening(TARGET): what the compiler and the linker offer against the exploitation of a
# mistake. Functions with arrays on their stack check it before they return, the C library's copying
# functions check the sizes that the compiler knows, and every address that the dynamic linker fills
# in is filled in at the start and read-only afterwards.
#
# With the sanitizers none of it: they check more, and the two get in each other's way.
include(CheckCXXCompilerFlag)
include(CheckLinkerFlag)

set(hardening_compile_options)
set(hardening_link_options)
if(QVDBASE_HARDENING AND NOT QVDBASE_SANITIZE AND NOT QVDBASE_SANITIZE_THREADS)
  check_cxx_compiler_flag(-fstack-protector-strong QVDBASE_HAS_STACK_PROTECTOR)
  if(QVDBASE_HAS_STACK_PROTECTOR)
    list(APPEND hardening_compile_options -fstack-protector-strong)
  endif()
  # The C library complains of the checks of sizes where nothing is optimised. Whoever sets a level
  # in the flags keeps it.
  foreach(config Release RelWithDebInfo MinSizeRel)
    string(TOUPPER ${config} upper)
    set(flags "${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_${upper}}")
    if(flags MATCHES "-O([1-3sz]|fast)" AND NOT flags MATCHES "-O0|_FORTIFY_SOURCE")
      list(APPEND hardening_compile_options
           $<$<CONFIG:${config}>:-U_FORTIFY_SOURCE> $<$<CONFIG:${config}>:-D_FORTIFY_SOURCE=2>)
    endif()
  endforeach()
  check_linker_flag(CXX "LINKER:-z,relro,-z,now" QVDBASE_HAS_BIND_NOW)
  if(QVDBASE_HAS_BIND_NOW)
    list(APPEND hardening_link_options "LINKER:-z,relro,-z,now")
  endif()
endif()

function(qvdbase_hardening target)
  target_compile_options(${target} PRIVATE ${hardening_compile_options})
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "SHARED_LIBRARY" OR type STREQUAL "EXECUTABLE")
    target_link_options(${target} PRIVATE ${hardening_link_options})
  endif()
endfunction()
