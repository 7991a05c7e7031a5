# What is installed: both libraries, the public headers, the tool, a CMake package, a pkg-config file,
# the licence and the documents for users. All of it may be moved after the installation; nothing installed names a
# fixed path, unless CMAKE_INSTALL_LIBDIR or another of these folders is given as one.
# Used as a subfolder of another project, nothing of ours is installed unless that is asked for.
if(NOT QVDBASE_INSTALL)
  return()
endif()
include(CMakePackageConfigHelpers)

install(TARGETS qvdbase qvdbase_static qvdbase_qvdb qvdbase_qvdb_static EXPORT QVDbaseTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/qvdbase DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")
if(TARGET qvdb_tool)
  install(TARGETS qvdb_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES ${PROJECT_SOURCE_DIR}/tools/qvdb.magic
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/qvdbase)
endif()

# The documents refer to one another by their places in the source tree, which are kept.
set(doc_folder ${CMAKE_INSTALL_DATAROOTDIR}/doc/qvdbase)
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/README.md
              ${PROJECT_SOURCE_DIR}/CHANGELOG.md ${PROJECT_SOURCE_DIR}/SECURITY.md
        DESTINATION ${doc_folder})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs DESTINATION ${doc_folder})

# The library is C++ inside. A program whose linker is run as for C must name the C++ library.
target_link_libraries(qvdbase_static INTERFACE $<INSTALL_INTERFACE:$<$<LINK_LANGUAGE:C>:stdc++>>)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/QVDbase)
install(EXPORT QVDbaseTargets NAMESPACE QVDbase:: DESTINATION ${package_folder})
configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/QVDbaseConfig.cmake.in ${PROJECT_BINARY_DIR}/QVDbaseConfig.cmake
  INSTALL_DESTINATION ${package_folder} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QVDbaseConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/QVDbaseConfig.cmake
              ${PROJECT_BINARY_DIR}/QVDbaseConfigVersion.cmake
        DESTINATION ${package_folder})

# pkg-config finds the prefix from where the file itself lies, unless that is a place of its own.
set(pc_folder ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(pc_prefix "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH pc_up /prefix/${pc_folder} /prefix)
  string(REGEX REPLACE "/$" "" pc_up "${pc_up}")
  set(pc_prefix "\${pcfiledir}/${pc_up}")
endif()
foreach(folder libdir includedir)
  string(TOUPPER ${folder} name)
  set(pc_${folder} "${CMAKE_INSTALL_${name}}")
  if(NOT IS_ABSOLUTE "${pc_${folder}}")
    set(pc_${folder} "\${prefix}/${pc_${folder}}")
  endif()
endforeach()
configure_file(${PROJECT_SOURCE_DIR}/cmake/qvdbase.pc.in ${PROJECT_BINARY_DIR}/qvdbase.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qvdbase.pc DESTINATION ${pc_folder})
