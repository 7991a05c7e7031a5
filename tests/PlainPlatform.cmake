# The same tests once more, on the library as QVDBASE_PLAIN_TRANSFERS and QVDBASE_PORTABLE_POSIX make
# it: one system call for each transfer, and no call that only Linux knows.
#
# Only these files of the platform layer know of the two switches. Compiled once more and linked in
# front of the library, they take the place of their twins there, so that nothing else has to be
# compiled again; a twin that is drawn in all the same is an error of the linker.
set(folders_run_twice)
if(QVDBASE_SANITIZE OR QVDBASE_SANITIZE_THREADS OR QVDBASE_PLAIN_TRANSFERS OR QVDBASE_PORTABLE_POSIX)
  return()
endif()
# The other folders read and write files on a way of their own, or not at all, or take long; the
# preset "plain" takes them too.
set(folders_run_twice cross QVDbase exports support maintenance model objects platform)

set(plain_sources)
foreach(name paths/directory handles/file_entries host/system_calls transfer/transfer)
  list(APPEND plain_sources ${PROJECT_SOURCE_DIR}/src/platform/${name}.cpp)
endforeach()
add_library(plain_platform OBJECT ${plain_sources})
target_compile_definitions(plain_platform PRIVATE
  QVDBASE_PLAIN_TRANSFERS=1 QVDBASE_PORTABLE_POSIX=1
  $<TARGET_PROPERTY:qvdbase_internal,INTERFACE_COMPILE_DEFINITIONS>)
target_include_directories(plain_platform PRIVATE
  ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src)
target_compile_options(plain_platform PRIVATE $<$<CONFIG:RelWithDebInfo>:-O1>)  # not as the tests are
qvdbase_warnings(plain_platform)

# Makes PROGRAM from what TWIN is made of.
function(qvdbase_with_plain_platform program twin)
  add_executable(${program} $<TARGET_OBJECTS:${twin}> $<TARGET_OBJECTS:plain_platform>)
  get_target_property(libraries ${twin} LINK_LIBRARIES)
  target_link_libraries(${program} PRIVATE ${libraries})
endfunction()
