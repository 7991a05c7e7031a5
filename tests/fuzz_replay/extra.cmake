# The tests include the sources of the fuzz targets, and read their corpora.
target_include_directories(fuzz_replay_tests PRIVATE ${PROJECT_SOURCE_DIR})
target_compile_definitions(fuzz_replay_tests PRIVATE
  QVDBASE_FUZZ_CORPUS="${PROJECT_SOURCE_DIR}/fuzz/corpus")
target_sources(fuzz_replay_tests PRIVATE ${PROJECT_SOURCE_DIR}/tools/qvdb/streams/text.cpp)
target_include_directories(fuzz_replay_tests PRIVATE ${PROJECT_SOURCE_DIR}/tools/qvdb)
