# The generator of the manual; what it writes is linted and tried in a shell by made_files_test.sh.
if(NOT TARGET qvdb_tool)
  message(FATAL_ERROR "The tests need the tool: set QVDBASE_BUILD_TOOLS to ON")
endif()
file(GLOB generator CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tools/manual/*.cpp)
list(FILTER generator EXCLUDE REGEX "/main\\.cpp$")
target_sources(${name}_tests PRIVATE ${generator})
target_include_directories(${name}_tests PRIVATE ${PROJECT_SOURCE_DIR}/tools)
target_link_libraries(${name}_tests PRIVATE qvdb_tool_objects)

if(TARGET manual)
  add_test(NAME manual.FilesAreLintedAndWorkInAShell
    COMMAND ${folder}/made_files_test.sh ${PROJECT_BINARY_DIR}/tools/manual/made
            $<TARGET_FILE:qvdb_tool>)
  add_test(NAME manual.ShellsCompleteCommandLines
    COMMAND ${folder}/completion_test.sh ${PROJECT_BINARY_DIR}/tools/manual/made)
endif()
