# The tests of the tool run the program that was built; those of failing calls to the host run its
# commands in their own process.
if(NOT TARGET qvdb_tool)
  message(FATAL_ERROR "The tests need the tool: set QVDBASE_BUILD_TOOLS to ON")
endif()
find_package(nlohmann_json REQUIRED)
add_dependencies(${name}_tests qvdb_tool)
target_compile_definitions(${name}_tests PRIVATE QVDB_TOOL="$<TARGET_FILE:qvdb_tool>")
# Named from the top: the C++ layer has headers of the same names.
target_include_directories(${name}_tests PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(${name}_tests PRIVATE qvdb_tool_objects nlohmann_json::nlohmann_json)
