target_sources(proof_tests PRIVATE ${CMAKE_CURRENT_LIST_DIR}/scripted_calls.cpp)
target_compile_definitions(proof_tests PRIVATE QVDBASE_SOURCES="${PROJECT_SOURCE_DIR}")
set(seconds 3000)  # with QVDBASE_TEST_ALL
