# qvdbase_visible_symbols(TARGET LIST): links the shared library TARGET with a version script made
# from LIST, so that nothing but the listed names is visible in it. Hidden visibility alone does not
# do: the templates of the C++ library that we instantiate are visible by their own declaration.
function(qvdbase_visible_symbols target list)
  if(APPLE OR WIN32)
    return()
  endif()
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${list})

  set(script "{\n  global:\n")
  file(STRINGS ${list} lines REGEX "^C ")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^C +" "" name "${line}")
    string(APPEND script "    ${name};\n")
  endforeach()

  # In quotes a name is taken as it stands, without quotes * is a wildcard.
  string(APPEND script "    extern \"C++\" {\n")
  file(STRINGS ${list} lines REGEX "^C[+][+] ")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^C[+][+] +" "" name "${line}")
    if(name MATCHES " |[(]" AND NOT name MATCHES "[*]$")
      set(name "\"${name}\"")
    else()
      string(REGEX REPLACE "[ (]" "?" name "${name}")
    endif()
    string(APPEND script "      ${name};\n")
  endforeach()
  string(APPEND script "    };\n  local:\n    *;\n};\n")

  set(path ${CMAKE_CURRENT_BINARY_DIR}/visible_symbols.map)
  file(CONFIGURE OUTPUT ${path} CONTENT "${script}" @ONLY)
  target_link_options(${target} PRIVATE "LINKER:--version-script=${path}")
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${path})
endfunction()
