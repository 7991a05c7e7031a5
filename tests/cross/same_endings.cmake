# Lets two programs print how operations end, and compares what they print.
#
#   cmake -DONE=PROGRAM -DOTHER=PROGRAM -DSCRATCH=FOLDER [-DEMULATOR=COMMAND] -P same_endings.cmake
file(MAKE_DIRECTORY ${SCRATCH})
foreach(side ONE OTHER)
  execute_process(COMMAND ${EMULATOR} ${${side}} OUTPUT_FILE ${SCRATCH}/${side}.txt
                  COMMAND_ERROR_IS_FATAL ANY)
  file(STRINGS ${SCRATCH}/${side}.txt lines_${side})
endforeach()
list(LENGTH lines_ONE count)
if(count LESS 1000)
  message(FATAL_ERROR "only ${count} endings")
endif()
if(lines_ONE MATCHES "PASSES THE LIMIT" OR lines_OTHER MATCHES "PASSES THE LIMIT")
  message(FATAL_ERROR "a write passes the limit on the length of files (${SCRATCH}/*.txt)")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${SCRATCH}/ONE.txt ${SCRATCH}/OTHER.txt
                RESULT_VARIABLE differ)
if(differ)
  message(FATAL_ERROR "compare ${SCRATCH}/ONE.txt and ${SCRATCH}/OTHER.txt")
endif()
