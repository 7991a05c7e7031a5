# The program that scripts/cross runs on each machine.
add_executable(cross_files ${CMAKE_CURRENT_SOURCE_DIR}/cross/cross_files.cpp
                           ${CMAKE_CURRENT_SOURCE_DIR}/cross/written_files.cpp)
target_link_libraries(cross_files PRIVATE test_support)
qvdbase_warnings(cross_files)
target_sources(cross_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/cross/written_files.cpp)
