# The files of docs/conformance, read by the library, by the tool and by two readers that know nothing
# of either: that of the tests, and the one that a compiler makes of the grammar docs/qvdb.ksy.
if(NOT TARGET qvdb_tool)
  message(FATAL_ERROR "The tests need the tool: set QVDBASE_BUILD_TOOLS to ON")
endif()
find_package(nlohmann_json REQUIRED)
add_dependencies(${name}_tests qvdb_tool)
target_compile_definitions(${name}_tests PRIVATE
  QVDB_TOOL="$<TARGET_FILE:qvdb_tool>"
  QVDBASE_CONFORMANCE="${PROJECT_SOURCE_DIR}/docs/conformance"
  QVDBASE_CORPUS="${PROJECT_SOURCE_DIR}/fuzz/corpus")
target_link_libraries(${name}_tests PRIVATE nlohmann_json::nlohmann_json)

add_test(NAME ${name}.GrammarReadsTheFiles
         COMMAND ${folder}/grammar_test.sh ${PROJECT_SOURCE_DIR}/docs ${CMAKE_CURRENT_BINARY_DIR})
add_test(NAME ${name}.ScriptMakesTheFiles
         COMMAND ${folder}/made_test.sh ${PROJECT_SOURCE_DIR}/docs)
set_tests_properties(${name}.GrammarReadsTheFiles ${name}.ScriptMakesTheFiles
                     PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 300)
