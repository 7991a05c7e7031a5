# Tests of the virtual tables for SQLite: in this process, where calls to the host are counted, by the
# tool, and by SQLite's own shell with the loadable module.
if(NOT TARGET qvdb_tool)
  message(FATAL_ERROR "The tests need the tool: set QVDBASE_BUILD_TOOLS to ON")
endif()
find_package(nlohmann_json REQUIRED)
set(own_headers <nlohmann/json.hpp>)
target_sources(${name}_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/tool/parsed_json.cpp)
add_dependencies(${name}_tests qvdb_tool)
target_include_directories(${name}_tests PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(${name}_tests PRIVATE qvdb_tool_objects nlohmann_json::nlohmann_json)
target_compile_definitions(${name}_tests PRIVATE QVDB_TOOL="$<TARGET_FILE:qvdb_tool>"
                           EXAMPLES_FOLDER="${PROJECT_SOURCE_DIR}/examples")
find_program(QVDBASE_SQLITE_SHELL sqlite3)
if(TARGET qvdb_sqlite_module AND QVDBASE_SQLITE_SHELL)
  add_dependencies(${name}_tests qvdb_sqlite_module)
  target_compile_definitions(${name}_tests PRIVATE SQLITE_SHELL="${QVDBASE_SQLITE_SHELL}"
                             SQL_MODULE="$<TARGET_FILE:qvdb_sqlite_module>")
endif()
