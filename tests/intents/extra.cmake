# Makes and judges millions of files in memory: that pays for optimising it, but not with sanitizers,
# which only try a sample.
if(NOT QVDBASE_SANITIZE AND NOT QVDBASE_SANITIZE_THREADS)
  set_source_files_properties(${CMAKE_CURRENT_LIST_DIR}/crash_states_test.cpp PROPERTIES
    COMPILE_OPTIONS $<$<CONFIG:RelWithDebInfo>:-O2> SKIP_PRECOMPILE_HEADERS ON)
endif()
set(seconds 3000)  # with QVDBASE_TEST_ALL
