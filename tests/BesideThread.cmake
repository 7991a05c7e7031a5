# The tests of the C functions once more, in a process whose second thread works on a database of its
# own all the time. It pauses while a test has other host calls in the place of the real ones.
set(folders_run_beside_a_thread)
if(QVDBASE_SANITIZE OR NOT QVDBASE_THREADS)
  return()
endif()
set(folders_run_beside_a_thread support format QVDbase maintenance exports)

# They look at what belongs to the process: entries of the directory cache, exported counts, numbers,
# limits, memory.
set(tests_of_one_thread
    DirectoryCache.*
    AddingATable.KeepsTheDirectoryCacheInStep
    List.*
    FileNumbers.EndAt32767
    CloseFile.FailsForWhatIsNotOpen
    TransferTest.WriteStopsAtTheProcessesLimitWithoutASignal
    Variables.StartAtZero
    SettingTheVersion.CountsTheBytesWritten
    InspectingAFile.CountsTheBytesRead)
list(JOIN tests_of_one_thread ":" tests_of_one_thread)

# Makes PROGRAM from what TWIN is made of, with the second thread.
function(qvdbase_beside_a_thread program twin)
  add_executable(${program} $<TARGET_OBJECTS:${twin}>
                 ${CMAKE_CURRENT_SOURCE_DIR}/kit/busy_thread_main.cpp)
  target_link_libraries(${program} PRIVATE test_kit GTest::gtest)
  qvdbase_warnings(${program})
endfunction()
