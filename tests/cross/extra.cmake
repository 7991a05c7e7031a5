# The program that scripts/cross runs on each machine.
add_executable(cross_files ${CMAKE_CURRENT_SOURCE_DIR}/cross/cross_files.cpp
                           ${CMAKE_CURRENT_SOURCE_DIR}/cross/written_files.cpp)
target_link_libraries(cross_files PRIVATE test_kit)
qvdbase_warnings(cross_files)
target_sources(cross_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/cross/written_files.cpp)
# How operations end, which has to be the same whichever way the bytes go to the host.
add_executable(cross_endings ${CMAKE_CURRENT_SOURCE_DIR}/cross/endings.cpp)
target_link_libraries(cross_endings PRIVATE test_kit)
qvdbase_warnings(cross_endings)
# Whichever way the bytes go to the host, the files are the same.
if(name IN_LIST folders_run_twice)
  qvdbase_with_plain_platform(cross_files_plain cross_files)
  add_test(NAME cross.FilesAreTheSameWithPlainTransfers
    COMMAND ${CMAKE_COMMAND} -DONE=$<TARGET_FILE:cross_files> -DOTHER=$<TARGET_FILE:cross_files_plain>
            -DSCRATCH=${CMAKE_CURRENT_BINARY_DIR}/cross_files_scratch
            "-DEMULATOR=${CMAKE_CROSSCOMPILING_EMULATOR}"
            -P ${CMAKE_CURRENT_SOURCE_DIR}/cross/same_files.cmake)
  qvdbase_with_plain_platform(cross_endings_plain cross_endings)
  add_test(NAME cross.OperationsEndAlikeWithPlainTransfers
    COMMAND ${CMAKE_COMMAND} -DONE=$<TARGET_FILE:cross_endings>
            -DOTHER=$<TARGET_FILE:cross_endings_plain>
            -DSCRATCH=${CMAKE_CURRENT_BINARY_DIR}/cross_endings_scratch
            "-DEMULATOR=${CMAKE_CROSSCOMPILING_EMULATOR}"
            -P ${CMAKE_CURRENT_SOURCE_DIR}/cross/same_endings.cmake)
endif()
