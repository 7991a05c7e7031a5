# The tests of the tool run the program that was built; those of failing calls to the host run its
# commands in their own process.
if(NOT TARGET qvdb_tool)
  message(FATAL_ERROR "The tests need the tool: set QVDBASE_BUILD_TOOLS to ON")
endif()
find_package(nlohmann_json REQUIRED)
set(own_headers <nlohmann/json.hpp>)
target_sources(${name}_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/tool/parsed_json.cpp)
add_dependencies(${name}_tests qvdb_tool)
target_compile_definitions(${name}_tests PRIVATE QVDB_TOOL="$<TARGET_FILE:qvdb_tool>")
# Named from the top: the C++ layer has headers of the same names.
target_include_directories(${name}_tests PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(${name}_tests PRIVATE qvdb_tool_objects nlohmann_json::nlohmann_json)

# Loaded into the tool by tests that look at what it asks of the device.
add_library(watched_host MODULE ${folder}/watched_host.cpp)
qvdbase_warnings(watched_host)
target_compile_features(watched_host PRIVATE cxx_std_20)
target_link_libraries(watched_host PRIVATE ${CMAKE_DL_LIBS})
add_dependencies(${name}_tests watched_host)
target_compile_definitions(${name}_tests PRIVATE WATCHED_HOST="$<TARGET_FILE:watched_host>")
set_source_files_properties(${folder}/git_diff_test.cpp PROPERTIES
  COMPILE_DEFINITIONS TEXT_PAGE="${PROJECT_SOURCE_DIR}/docs/text.md")
