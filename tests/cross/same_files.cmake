# Lets two programs write their files, and compares these byte for byte.
#
#   cmake -DONE=PROGRAM -DOTHER=PROGRAM -DSCRATCH=FOLDER [-DEMULATOR=COMMAND] -P same_files.cmake
foreach(side ONE OTHER)
  set(folder ${SCRATCH}/${side})
  file(REMOVE_RECURSE ${folder})
  file(MAKE_DIRECTORY ${folder})
  execute_process(COMMAND ${EMULATOR} ${${side}} write ${folder} COMMAND_ERROR_IS_FATAL ANY)
  file(GLOB names RELATIVE ${folder} ${folder}/*)
  set(names_${side} ${names})
endforeach()
if(NOT names_ONE OR NOT names_ONE STREQUAL names_OTHER)
  message(FATAL_ERROR "other files: ${names_ONE} and ${names_OTHER}")
endif()
foreach(name IN LISTS names_ONE)
  execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${SCRATCH}/ONE/${name} ${SCRATCH}/OTHER/${name}
                  COMMAND_ERROR_IS_FATAL ANY)
endforeach()
